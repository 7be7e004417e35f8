#pragma once
/// \file
/// The SDK's facade. A host application starts it once at launch on the main
/// thread with initWithAppToken(), and from then on the SDK registers the push
/// token, receives polls, shows them as a banner and posts the answers by
/// itself. It reports nothing back but log lines; nothing is thrown to the
/// host.
///
/// Threading: every operation is meant for the main thread (the thread that
/// drives platform::mainRunLoop()), except log() and setUserInfo(), which may
/// be called from any thread.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "quorvia/export.h"
#include "quorvia/platform/Error.h"
#include "quorvia/platform/Value.h"
#include "quorvia/ui/QVNotificationViewDelegate.h"

namespace quorvia {

namespace platform {
class Application;
class Class;
class Object;
}  // namespace platform

class QVNotificationView;

/// Launch-options key under which the platform passes the push payload that
/// launched the application.
inline constexpr const char* UIApplicationLaunchOptionsRemoteNotificationKey =
    "UIApplicationLaunchOptionsRemoteNotificationKey";

class QUORVIA_EXPORT QuorviaSDK final : public QVNotificationViewDelegate,
                                        public std::enable_shared_from_this<QuorviaSDK> {
 public:
  /// A completion callback without arguments (a notification action's).
  using CompletionHandler = std::function<void()>;

  // ---- Class-level operations (public API) ----

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
                               const std::optional<platform::Value>& launchOptions,
                               bool swizzling);
  /// The shared instance, created on first use (thread-safe), which asks for
  /// remote notifications and observes the app becoming active.
  static std::shared_ptr<QuorviaSDK> sharedInstance();
  /// Writes "QuorviaSDK: <message>" to the system log while debug() is true.
  /// Any thread.
  static void log(std::string_view message);
  /// Turns the SDK's logging on or off (on by default).
  static void setDebug(bool debug);
  /// Registers the poll categories with badge, sound and alert types, merged
  /// with the categories already registered. Asks the user on first call.
  static void askUserForPushPermissions();
  /// Shows the poll under "poll" of a push payload as a collapsed banner; a
  /// payload without "poll" is ignored. For hosts that start with swizzling off.
  static void handleRemoteNotification(const platform::Value& payload);
  /// Sends the pressed notification button's identifier as the reply to the
  /// payload's poll. For hosts that start with swizzling off.
  static void handleActionWithIdentifier(const std::optional<std::string>& identifier,
                                         const platform::Value& userInfo);
  /// Registers the device's push token with the service. Nil is ignored.
  static void setDeviceToken(const std::optional<platform::Bytes>& token);
  /// Attaches the host's information about the user to the device's record on
  /// the service. Nil is ignored. Any thread.
  static void setUserInfo(const std::optional<platform::Value>& userInfo);

  // ---- Properties ----

  /// Whether log() writes; true from creation. Read from any thread.
  bool debug() const { return debug_.load(std::memory_order_relaxed); }
  /// Instance setter of debug (the class-level setDebug() calls it).
  void setDebugEnabled(bool debug) { debug_.store(debug, std::memory_order_relaxed); }
  /// Declared for the host's use; start-up never writes it (the token in
  /// force is kept process-wide instead).
  const std::optional<std::string>& appToken() const { return appTokenProperty_; }
  void setAppToken(std::optional<std::string> token) { appTokenProperty_ = std::move(token); }
  /// The banner on screen, or null. Main thread.
  const std::shared_ptr<QVNotificationView>& presentedPollView() const {
    return presentedPollView_;
  }
  void setPresentedPollView(std::shared_ptr<QVNotificationView> view) {
    presentedPollView_ = std::move(view);
  }
  /// Selector text -> true for each intercepted callback the host's delegate
  /// class lacked. Main thread.
  const platform::Value& addedMethods() const { return addedMethods_; }
  platform::Value& mutableAddedMethods() { return addedMethods_; }

  /// The token of the most recent start-up that passed the release gate, or
  /// nil before one (the process-wide token, not the appToken property).
  static std::optional<std::string> currentAppToken();

  /// The background task of the reply in flight, or 0 (the platform's
  /// invalid identifier) when none is tracked. Main thread.
  static std::uint64_t currentReplyBackgroundTask();

  // ---- Instance operations ----

  /// Start-up on the shared instance (the class-level initWithAppToken calls
  /// it). Returns null when the system release is below 8.
  QuorviaSDK* startWithAppToken(const std::string& token,
                                const std::optional<platform::Value>& launchOptions,
                                bool swizzling);

  /// Intercepts the six push callbacks of the class of the application's
  /// current delegate (not its superclasses, not a later delegate): each runs
  /// the library's handler first, then the host's own implementation, or
  /// nothing when the host's class lacked it (recorded in addedMethods()).
  /// Running it again installs nothing twice. No delegate: nothing happens.
  /// Main thread, before the platform delivers any of the callbacks.
  void swizzle();
  /// Installs one callback: `originalSelector` of `cls` will run the library's
  /// method `swizzledSelector`, and sending `swizzledSelector` to the delegate
  /// reaches the host's own implementation, or empty() when `cls` itself had
  /// none (then addedMethods() gets `originalSelector` -> true). A null `cls`
  /// changes nothing. Main thread.
  void swizzleMethodForClass(platform::Class* cls, std::string_view originalSelector,
                             std::string_view swizzledSelector);
  /// The do-nothing operation that stands in for a callback the host lacks.
  void empty() {}

  /// A remote-notification fetch completion, taking a fetch result.
  using FetchCompletionHandler = std::function<void(int fetchResult)>;

  // ---- The library's interception handlers ----
  //
  // The implementations that swizzle() places into the delegate's class under
  // the platform callbacks' names. The platform calls them on the main thread
  // with the host's delegate as `self`, never the shared instance; they reach
  // library state only through the class operations and sharedInstance(). Each
  // does the library's work, then sends the matching "yp_" message to `self`
  // with the same arguments (the host's own code, or empty()). A completion
  // handler is called by the library at most once, and only where the host's
  // class had no implementation of its own.

  /// application:didRegisterForRemoteNotificationsWithDeviceToken: logs the
  /// token's arrival and registers it with setDeviceToken().
  static void yp_application(platform::Object& self, platform::Application* application,
                             const std::optional<platform::Bytes>&
                                 didRegisterForRemoteNotificationsWithDeviceToken);
  /// application:didFailToRegisterForRemoteNotificationsWithError: logs a
  /// fixed hint (not the error).
  static void yp_application(
      platform::Object& self, platform::Application* application,
      const std::optional<platform::Error>& didFailToRegisterForRemoteNotificationsWithError);
  /// application:didReceiveRemoteNotification: hands the payload to
  /// handleRemoteNotification().
  static void yp_application(platform::Object& self, platform::Application* application,
                             const std::optional<platform::Value>& didReceiveRemoteNotification);
  /// application:didReceiveRemoteNotification:fetchCompletionHandler: as
  /// above; completes with new data when the host's class lacked the callback.
  static void yp_application(platform::Object& self, platform::Application* application,
                             const std::optional<platform::Value>& didReceiveRemoteNotification,
                             FetchCompletionHandler fetchCompletionHandler);
  /// application:handleActionWithIdentifier:forRemoteNotification:completionHandler:
  /// replies through handleActionWithIdentifier(); completes when the host's
  /// class lacked the callback.
  static void yp_application(platform::Object& self, platform::Application* application,
                             const std::optional<std::string>& handleActionWithIdentifier,
                             const std::optional<platform::Value>& forRemoteNotification,
                             CompletionHandler completionHandler);
  /// application:handleActionWithIdentifier:forRemoteNotification:
  /// withResponseInfo:completionHandler:
  /// The default action (the notification itself was opened) presents the
  /// poll expanded, completes only when the host's class lacked the callback,
  /// and does not call the host. Any other identifier is sent as a reply that
  /// carries the completion handler, then the host is called.
  static void yp_application(platform::Object& self, platform::Application* application,
                             const std::optional<std::string>& handleActionWithIdentifier,
                             const std::optional<platform::Value>& forRemoteNotification,
                             const std::optional<platform::Value>& withResponseInfo,
                             CompletionHandler completionHandler);

  /// Observer of the app becoming active: fetches polls.
  void appDidBecomeActive();
  /// Fetches the app's pending polls and presents the first.
  void fetchPolls();
  /// Presents the first poll of a fetch response's "results".
  void parsePollsReponse(const platform::Value& response);

  /// Posts `identifier` as the reply to the poll under "poll" of `userInfo`.
  void sendReplyWithIdentifier(const std::optional<std::string>& identifier,
                               const platform::Value& userInfo,
                               CompletionHandler completionHandler);
  /// Posts `identifier` as the reply to poll `pollId` (nil allowed).
  void sendReplyWithIdentifier(const std::optional<std::string>& identifier,
                               const platform::Value* pollId,
                               CompletionHandler completionHandler);

  /// Shows a poll as a banner sliding down from the top of the key window.
  /// Returns null when a banner is already shown (the poll is dropped).
  std::shared_ptr<QVNotificationView> presentPollWithPollDict(const platform::Value* pollDict);
  /// Expands a shown banner over a backdrop (null: only the backdrop).
  void showOptionsForNotificationView(const std::shared_ptr<QVNotificationView>& view);
  /// Slides a banner out of sight and frees the way for the next one.
  void hideNotificationView(const std::shared_ptr<QVNotificationView>& view);

  // QVNotificationViewDelegate
  void notificationViewDidPressExpand(const std::shared_ptr<QVNotificationView>& view) override;
  void notificationView(const std::shared_ptr<QVNotificationView>& view,
                        const std::optional<std::string>& identifier,
                        const std::optional<std::string>& link) override;
  void notificationViewDidPressClose(const std::shared_ptr<QVNotificationView>& view) override;

  QuorviaSDK(const QuorviaSDK&) = delete;
  QuorviaSDK& operator=(const QuorviaSDK&) = delete;
  ~QuorviaSDK() override;

 private:
  QuorviaSDK();
  void mergeCategoriesIntoSettings();

  std::atomic<bool> debug_{false};
  std::optional<std::string> appTokenProperty_;
  std::shared_ptr<QVNotificationView> presentedPollView_;
  platform::Value addedMethods_ = platform::Value::object();
};

}  // namespace quorvia
