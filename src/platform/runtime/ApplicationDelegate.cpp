#include <utility>

#include "platform/ApplicationDelegateRuntime.h"
#include "quorvia/platform/Application.h"

namespace quorvia::platform {

std::shared_ptr<Object> makeDelegateObject(ApplicationDelegate delegate, std::string className) {
  auto cls = Class::create(std::move(className));
  // Only what the host provides becomes a method: a callback it left empty
  // is one its class lacks, which is what interception and the completion
  // rule go by.
  auto add = [&cls](std::string_view selector, const auto& callback, IMP imp) {
    if (callback)
      class_addMethod(cls.get(), selector, std::move(imp),
                      applicationDelegateTypeEncoding(selector));
  };
  const auto& d = delegate;
  add(kDidRegisterForRemoteNotificationsSelector, d.didRegisterForRemoteNotifications,
      [f = d.didRegisterForRemoteNotifications](Object&, const MessageArguments& a) {
        f(a.deviceToken.value_or(Bytes{}));
      });
  add(kDidFailToRegisterForRemoteNotificationsSelector, d.didFailToRegisterForRemoteNotifications,
      [f = d.didFailToRegisterForRemoteNotifications](Object&, const MessageArguments& a) {
        f(a.error.value_or(Error{}));
      });
  add(kDidReceiveRemoteNotificationSelector, d.didReceiveRemoteNotification,
      [f = d.didReceiveRemoteNotification](Object&, const MessageArguments& a) { f(a.userInfo); });
  add(kDidReceiveRemoteNotificationFetchSelector, d.didReceiveRemoteNotificationWithFetchCompletion,
      [f = d.didReceiveRemoteNotificationWithFetchCompletion](Object&, const MessageArguments& a) {
        std::function<void(FetchResult)> done;
        if (a.fetchCompletionHandler) {
          done = [handler = a.fetchCompletionHandler](FetchResult result) {
            handler(static_cast<int>(result));
          };
        } else {
          done = [](FetchResult) {};
        }
        f(a.userInfo, std::move(done));
      });
  add(kHandleActionSelector, d.handleAction,
      [f = d.handleAction](Object&, const MessageArguments& a) {
        f(
            a.identifier, a.userInfo, a.completionHandler ? a.completionHandler : [] {});
      });
  add(kHandleActionWithResponseInfoSelector, d.handleActionWithResponseInfo,
      [f = d.handleActionWithResponseInfo](Object&, const MessageArguments& a) {
        f(
            a.identifier, a.userInfo, a.responseInfo,
            a.completionHandler ? a.completionHandler : [] {});
      });
  return std::make_shared<Object>(std::move(cls));
}

std::string_view applicationDelegateTypeEncoding(std::string_view selector) {
  if (selector == kDidRegisterForRemoteNotificationsSelector ||
      selector == kDidFailToRegisterForRemoteNotificationsSelector ||
      selector == kDidReceiveRemoteNotificationSelector) {
    return kTwoObjectsTypeEncoding;
  }
  if (selector == kDidReceiveRemoteNotificationFetchSelector) {
    return kTwoObjectsAndBlockTypeEncoding;
  }
  if (selector == kHandleActionSelector) return kThreeObjectsAndBlockTypeEncoding;
  if (selector == kHandleActionWithResponseInfoSelector) return kFourObjectsAndBlockTypeEncoding;
  return {};
}

bool deliverToApplicationDelegate(std::string_view selector, MessageArguments arguments) {
  auto& application = Application::sharedApplication();
  // Held for the whole delivery: the host may replace its delegate meanwhile.
  std::shared_ptr<Object> delegate = delegateObject(application);
  if (!delegate || !delegate->respondsToSelector(selector)) return false;
  if (!arguments.application) arguments.application = &application;
  return delegate->send(selector, arguments);
}

}  // namespace quorvia::platform
