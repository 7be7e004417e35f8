#include "platform/push/RemoteNotifications.h"

#include <atomic>

#include "platform/ApplicationDelegateRuntime.h"
#include "platform/Log.h"
#include "platform/push/CompletionDeadline.h"
#include "platform/push/NotificationActions.h"
#include "quorvia/platform/Application.h"
#include "quorvia/platform/Environment.h"
#include "quorvia/platform/PushService.h"

namespace quorvia::platform {
namespace {

// A real platform ends the app's time for the push when its deadline is over.
CompletionDeadline& fetchDeadline() {
  static auto* const deadline = new CompletionDeadline(
      kFetchCompletionDeadline,
      "QuorviaSDK: a push's fetch completion handler was not called within 30 seconds");
  return *deadline;
}

}  // namespace

void startRemoteNotifications() {
  const std::shared_ptr<PushService> service = environment().pushService();
  if (!service) return;
  PushService::Handlers handlers;
  handlers.didRegister = [](Bytes token) {
    MessageArguments arguments;
    arguments.deviceToken = std::move(token);
    deliverToApplicationDelegate(kDidRegisterForRemoteNotificationsSelector, std::move(arguments));
  };
  handlers.didFailToRegister = [](Error error) {
    MessageArguments arguments;
    arguments.error = std::move(error);
    deliverToApplicationDelegate(kDidFailToRegisterForRemoteNotificationsSelector,
                                 std::move(arguments));
  };
  handlers.didReceive = [](Value payload) { deliverRemoteNotification(std::move(payload)); };
  service->registerForRemoteNotifications(std::move(handlers));
}

void deliverRemoteNotification(Value payload) {
  presentRemoteNotification(payload);
  MessageArguments arguments;
  arguments.userInfo.emplace(std::move(payload));
  const std::shared_ptr<Object> delegate = delegateObject(Application::sharedApplication());
  if (!delegate || !delegate->respondsToSelector(kDidReceiveRemoteNotificationFetchSelector)) {
    deliverToApplicationDelegate(kDidReceiveRemoteNotificationSelector, std::move(arguments));
    return;
  }
  // The host may complete from any thread, and more than once by mistake.
  auto called = std::make_shared<std::atomic<bool>>(false);
  arguments.fetchCompletionHandler = [called, ticket = fetchDeadline().start()](int) {
    if (called->exchange(true)) {
      debugLog("QuorviaSDK: a push's fetch completion handler was called again; ignored");
      return;
    }
    fetchDeadline().finish(ticket);
  };
  deliverToApplicationDelegate(kDidReceiveRemoteNotificationFetchSelector, std::move(arguments));
}

std::size_t pushFetchCompletionsAwaited() { return fetchDeadline().watching(); }

}  // namespace quorvia::platform
