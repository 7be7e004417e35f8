#pragma once
// Internal: the six application-delegate callbacks that the library
// intercepts, each paired with the library's handler, in installation order.

#include <array>
#include <string_view>

#include "quorvia/platform/ApplicationDelegate.h"

namespace quorvia::detail {

inline constexpr std::string_view kYpDidRegisterForRemoteNotificationsSelector =
    "yp_application:didRegisterForRemoteNotificationsWithDeviceToken:";
inline constexpr std::string_view kYpDidFailToRegisterForRemoteNotificationsSelector =
    "yp_application:didFailToRegisterForRemoteNotificationsWithError:";
inline constexpr std::string_view kYpDidReceiveRemoteNotificationSelector =
    "yp_application:didReceiveRemoteNotification:";
inline constexpr std::string_view kYpDidReceiveRemoteNotificationFetchSelector =
    "yp_application:didReceiveRemoteNotification:fetchCompletionHandler:";
inline constexpr std::string_view kYpHandleActionSelector =
    "yp_application:handleActionWithIdentifier:forRemoteNotification:completionHandler:";
inline constexpr std::string_view kYpHandleActionWithResponseInfoSelector =
    "yp_application:handleActionWithIdentifier:forRemoteNotification:withResponseInfo:"
    "completionHandler:";

inline constexpr std::string_view kEmptySelector = "empty";

struct InterceptedCallback {
  std::string_view original;  // the platform callback
  std::string_view swizzled;  // the library's handler
};

inline constexpr std::array<InterceptedCallback, 6> kInterceptionTable = {{
    {platform::kDidRegisterForRemoteNotificationsSelector,
     kYpDidRegisterForRemoteNotificationsSelector},
    {platform::kDidFailToRegisterForRemoteNotificationsSelector,
     kYpDidFailToRegisterForRemoteNotificationsSelector},
    {platform::kDidReceiveRemoteNotificationSelector, kYpDidReceiveRemoteNotificationSelector},
    {platform::kDidReceiveRemoteNotificationFetchSelector,
     kYpDidReceiveRemoteNotificationFetchSelector},
    {platform::kHandleActionSelector, kYpHandleActionSelector},
    {platform::kHandleActionWithResponseInfoSelector, kYpHandleActionWithResponseInfoSelector},
}};

}  // namespace quorvia::detail
