#include "quorvia/platform/ApplicationDelegate.h"

#include <utility>

#include "quorvia/platform/Application.h"

namespace quorvia::platform {

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
  std::shared_ptr<Object> delegate = application.delegate();
  if (!delegate || !delegate->respondsToSelector(selector)) return false;
  if (!arguments.application) arguments.application = &application;
  return delegate->send(selector, arguments);
}

}  // namespace quorvia::platform
