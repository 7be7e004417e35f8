// The library's handlers of the six intercepted application-delegate
// callbacks. They run with the host's delegate as `self`. A failure in the
// library's part is dropped at this boundary so that the host's own
// implementation is still called.

#include <atomic>
#include <memory>
#include <utility>

#include "platform/Guard.h"
#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/ApplicationDelegate.h"
#include "quorvia/platform/Runtime.h"
#include "sdk/InterceptionTable.h"

namespace quorvia {
namespace {

using platform::MessageArguments;
using platform::Value;

constexpr std::string_view kDefaultActionIdentifier =
    "com.apple.UNNotificationDefaultActionIdentifier";

// Whether the delegate's class had no implementation of its own of
// `selector` when it was intercepted, so that the host cannot complete it.
bool hostLacks(std::string_view selector) {
  const Value* added =
      platform::valueForKey(QuorviaSDK::sharedInstance()->addedMethods(), selector);
  return added && added->is_boolean() && added->get<bool>();
}

// The same completion, callable any number of times and by any holder, that
// reaches the platform's at most once. Every handler shares one such wrapper
// between the host, the reply and its own call, so no path completes twice.
template <typename... Args>
std::function<void(Args...)> completingOnce(std::function<void(Args...)> handler) {
  if (!handler) return handler;
  auto called = std::make_shared<std::atomic<bool>>(false);
  return [handler = std::move(handler), called](Args... args) {
    if (!called->exchange(true)) handler(args...);
  };
}

const Value& payloadOrNil(const std::optional<Value>& payload) {
  static const Value* const nil = new Value();
  return payload ? *payload : *nil;
}

}  // namespace

void QuorviaSDK::yp_application(
    platform::Object& self, platform::Application* application,
    const std::optional<platform::Bytes>& didRegisterForRemoteNotificationsWithDeviceToken) {
  platform::runDroppingExceptions("Device token", [&] {
    log("Received device push token from iOS.");
    setDeviceToken(didRegisterForRemoteNotificationsWithDeviceToken);
  });
  MessageArguments callThrough;
  callThrough.application = application;
  callThrough.deviceToken = didRegisterForRemoteNotificationsWithDeviceToken;
  self.send(detail::kYpDidRegisterForRemoteNotificationsSelector, callThrough);
}

void QuorviaSDK::yp_application(
    platform::Object& self, platform::Application* application,
    const std::optional<platform::Error>& didFailToRegisterForRemoteNotificationsWithError) {
  // The error itself is deliberately left out of the line.
  log("Failed to register for remote notifications. Make sure Push Notifications is enabled in "
      "your target capabilities.");
  MessageArguments callThrough;
  callThrough.application = application;
  callThrough.error = didFailToRegisterForRemoteNotificationsWithError;
  self.send(detail::kYpDidFailToRegisterForRemoteNotificationsSelector, callThrough);
}

void QuorviaSDK::yp_application(platform::Object& self, platform::Application* application,
                                const std::optional<Value>& didReceiveRemoteNotification) {
  handleRemoteNotification(payloadOrNil(didReceiveRemoteNotification));
  MessageArguments callThrough;
  callThrough.application = application;
  callThrough.userInfo = didReceiveRemoteNotification;
  self.send(detail::kYpDidReceiveRemoteNotificationSelector, callThrough);
}

void QuorviaSDK::yp_application(platform::Object& self, platform::Application* application,
                                const std::optional<Value>& didReceiveRemoteNotification,
                                FetchCompletionHandler fetchCompletionHandler) {
  auto completion = completingOnce(std::move(fetchCompletionHandler));
  handleRemoteNotification(payloadOrNil(didReceiveRemoteNotification));
  MessageArguments callThrough;
  callThrough.application = application;
  callThrough.userInfo = didReceiveRemoteNotification;
  callThrough.fetchCompletionHandler = completion;
  self.send(detail::kYpDidReceiveRemoteNotificationFetchSelector, callThrough);
  if (completion && hostLacks(platform::kDidReceiveRemoteNotificationFetchSelector)) {
    completion(platform::UIBackgroundFetchResultNewData);
  }
}

void QuorviaSDK::yp_application(platform::Object& self, platform::Application* application,
                                const std::optional<std::string>& handleActionWithIdentifier,
                                const std::optional<Value>& forRemoteNotification,
                                CompletionHandler completionHandler) {
  auto completion = completingOnce(std::move(completionHandler));
  platform::runDroppingExceptions("Notification action", [&] {
    QuorviaSDK::handleActionWithIdentifier(handleActionWithIdentifier,
                                           payloadOrNil(forRemoteNotification));
  });
  MessageArguments callThrough;
  callThrough.application = application;
  callThrough.identifier = handleActionWithIdentifier;
  callThrough.userInfo = forRemoteNotification;
  callThrough.completionHandler = completion;
  self.send(detail::kYpHandleActionSelector, callThrough);
  if (completion && hostLacks(platform::kHandleActionSelector)) completion();
}

void QuorviaSDK::yp_application(platform::Object& self, platform::Application* application,
                                const std::optional<std::string>& handleActionWithIdentifier,
                                const std::optional<Value>& forRemoteNotification,
                                const std::optional<Value>& withResponseInfo,
                                CompletionHandler completionHandler) {
  auto completion = completingOnce(std::move(completionHandler));
  auto shared = sharedInstance();
  if (handleActionWithIdentifier == kDefaultActionIdentifier) {
    // The user opened the notification itself: show the poll expanded.
    platform::runDroppingExceptions("Default notification action", [&] {
      const Value* poll = platform::valueForKey(payloadOrNil(forRemoteNotification), "poll");
      auto view = shared->presentPollWithPollDict(poll);
      shared->showOptionsForNotificationView(view);
    });
    // Deliberately asymmetric with the reply branch: the host is not called,
    // and when it implements this callback nobody completes it. Hosts already
    // integrated depend on this; keep it.
    if (completion && hostLacks(platform::kHandleActionWithResponseInfoSelector)) completion();
    return;
  }
  // The reply decides when the completion runs; the host gets it as well.
  platform::runDroppingExceptions("Notification action", [&] {
    shared->sendReplyWithIdentifier(handleActionWithIdentifier, payloadOrNil(forRemoteNotification),
                                    completion);
  });
  MessageArguments callThrough;
  callThrough.application = application;
  callThrough.identifier = handleActionWithIdentifier;
  callThrough.userInfo = forRemoteNotification;
  callThrough.responseInfo = withResponseInfo;
  callThrough.completionHandler = completion;
  self.send(detail::kYpHandleActionWithResponseInfoSelector, callThrough);
}

}  // namespace quorvia
