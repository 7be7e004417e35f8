#pragma once
// Internal: the four calls the SDK makes to the poll service (device
// registration, user information, poll replies, poll fetching) and the rule
// that decides who completes a notification action's reply.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "quorvia/platform/Application.h"
#include "quorvia/platform/Error.h"
#include "quorvia/platform/Value.h"

namespace quorvia::service {

/// What the service calls need from the layer above them.
struct ServiceHooks {
  /// The application token of the latest start-up, or nil before one.
  std::function<std::optional<std::string>()> appToken;
  /// Whether the host's delegate class lacked `selector` when its callbacks
  /// were intercepted, so that nobody but the library completes that call.
  std::function<bool(std::string_view selector)> hostLacks;
  /// Receives the first poll of a fetch (the poll dictionary, never null).
  std::function<void(const platform::Value* pollDict)> presentPoll;
  /// Writes one of the SDK's switchable log lines. Any thread.
  std::function<void(std::string_view message)> log;
  /// A registration of `pushToken` (hex) finished: nil error when the
  /// service answered. Main thread; may be empty.
  std::function<void(const std::string& pushToken, const std::optional<platform::Error>& error)>
      registered;
  /// A reply's request finished: nil error when the service answered. Main
  /// thread; may be empty.
  std::function<void(const std::optional<platform::Value>& pollId,
                     const std::optional<std::string>& identifier,
                     const std::optional<platform::Error>& error)>
      replied;
};

/// The service client of the shared SDK instance. Main thread, except
/// setUserInfo(), which any thread may call.
class PollService final : public std::enable_shared_from_this<PollService> {
 public:
  using CompletionHandler = std::function<void()>;

  explicit PollService(ServiceHooks hooks) : hooks_(std::move(hooks)) {}

  /// Registers the device's push token; keeps the access token the service
  /// answers with. Nil is ignored.
  void setDeviceToken(const std::optional<platform::Bytes>& token);
  /// Sends the host's information about the user. Nil is ignored.
  void setUserInfo(const std::optional<platform::Value>& userInfo);
  /// Posts `identifier` as the reply to the poll under "poll" of `userInfo`
  /// (nil when the notification came without a payload).
  void sendReplyWithIdentifier(const std::optional<std::string>& identifier,
                               const std::optional<platform::Value>& userInfo,
                               CompletionHandler completionHandler);
  /// Posts `identifier` as the reply to poll `pollId` (nil allowed).
  void sendReplyWithIdentifier(const std::optional<std::string>& identifier,
                               const platform::Value* pollId, CompletionHandler completionHandler);
  /// Fetches the app's pending polls and presents the first.
  void fetchPolls();
  /// Presents the first poll of a fetch response's "results".
  void parsePollsReponse(const platform::Value& response);

  /// The background task of the reply in flight, or UIBackgroundTaskInvalid.
  static platform::BackgroundTaskIdentifier currentReplyBackgroundTask();

 private:
  void log(std::string_view message) const { hooks_.log(message); }

  const ServiceHooks hooks_;
};

}  // namespace quorvia::service
