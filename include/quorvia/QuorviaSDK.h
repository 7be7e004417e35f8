#pragma once
/// \file
/// The SDK's facade: everything a host application calls. Start the SDK once
/// at launch, on the main thread, with initWithAppToken(); from then on it
/// registers the push token, receives polls, shows them as a banner and posts
/// the answers by itself. It reports nothing back but log lines; nothing is
/// thrown to the host.
///
/// With interception on (the default), the SDK takes the application
/// delegate's push callbacks by itself. With it off, the host forwards them:
/// the device token to setDeviceToken(), a push payload to
/// handleRemoteNotification(), a pressed notification button to
/// handleActionWithIdentifier().
///
/// Threading: every operation is meant for the main thread (the thread that
/// drives platform::mainRunLoop()), except log() and setUserInfo(), which may
/// be called from any thread.

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "quorvia/Version.h"
#include "quorvia/export.h"
#include "quorvia/platform/Value.h"

namespace quorvia {

namespace sdk {
class SDKState;
}

/// Launch-options key under which the platform passes the push payload that
/// launched the application.
inline constexpr const char* UIApplicationLaunchOptionsRemoteNotificationKey =
    "UIApplicationLaunchOptionsRemoteNotificationKey";

class QUORVIA_EXPORT QuorviaSDK final {
 public:
  /// Starts the SDK with interception of the application delegate on; the
  /// same as initWithAppToken(token, launchOptions, true).
  static void initWithAppToken(const std::string& token,
                               const std::optional<platform::Value>& launchOptions);
  /// Starts the SDK: checks the system release (8 and later), keeps the token,
  /// intercepts the application delegate's push callbacks when `swizzling`
  /// is true, merges the poll categories into the notification settings, and
  /// presents the poll that launched the app (0.1 s later, expanded) or else
  /// fetches pending polls. May be called again; each call repeats start-up.
  static void initWithAppToken(const std::string& token,
                               const std::optional<platform::Value>& launchOptions, bool swizzling);
  /// The shared instance, created on first use (thread-safe) and never torn
  /// down; creating it asks for remote notifications and observes the app
  /// becoming active.
  static std::shared_ptr<QuorviaSDK> sharedInstance();
  /// Writes "QuorviaSDK: <message>" to the log while debug() is true. Any thread.
  static void log(std::string_view message);
  /// Turns the SDK's logging on or off (on by default). Off, the SDK writes
  /// only three kinds of line: "nil id" for a poll without an id, a failed
  /// fetch's error and an exception caught while sending a reply.
  static void setDebug(bool debug);
  /// Registers the poll categories with badge, sound and alert types, merged
  /// with the categories already registered. The platform asks the user.
  static void askUserForPushPermissions();
  /// Shows the poll under "poll" of a push payload as a collapsed banner; a
  /// payload without "poll", or a malformed poll, is ignored. For hosts that
  /// start with interception off.
  static void handleRemoteNotification(const std::optional<platform::Value>& payload);
  /// Sends the pressed notification button's identifier as the reply to the
  /// payload's poll. For hosts that start with interception off.
  static void handleActionWithIdentifier(const std::optional<std::string>& identifier,
                                         const std::optional<platform::Value>& userInfo);
  /// Registers the device's push token with the service. Nil is ignored. For
  /// hosts that start with interception off.
  static void setDeviceToken(const std::optional<platform::Bytes>& token);
  /// Attaches the host's information about the user to the device's record on
  /// the service. Nil is ignored. Any thread.
  static void setUserInfo(const std::optional<platform::Value>& userInfo);

  /// The version of the library the host runs with, e.g. "0.1.0"; compare
  /// with QUORVIA_VERSION, the version of the headers it was built against.
  static std::string_view version();

  /// Whether log() writes; true from creation. Any thread.
  bool debug() const;
  /// For the host's own use: start-up never reads or writes it.
  const std::optional<std::string>& appToken() const;
  void setAppToken(std::optional<std::string> token);

  QuorviaSDK(const QuorviaSDK&) = delete;
  QuorviaSDK& operator=(const QuorviaSDK&) = delete;
  ~QuorviaSDK();

 private:
  friend class sdk::SDKState;
  QuorviaSDK();

  const std::unique_ptr<sdk::SDKState> state_;
};

}  // namespace quorvia
