#pragma once
// Internal: the application delegate's push callbacks (UIApplicationDelegate)
// as messages of the delegate-class runtime, which interception changes, and
// the platform's side of delivering them. A host never sees this: it sets a
// typed ApplicationDelegate, which becomes a runtime class here with a method
// for each callback it provides. Tests and the simulator may define their
// delegate class directly.

#include <memory>
#include <string_view>

#include "platform/Runtime.h"
#include "quorvia/export.h"
#include "quorvia/platform/Application.h"

namespace quorvia::platform {

/// application, deviceToken.
inline constexpr std::string_view kDidRegisterForRemoteNotificationsSelector =
    "application:didRegisterForRemoteNotificationsWithDeviceToken:";
/// application, error.
inline constexpr std::string_view kDidFailToRegisterForRemoteNotificationsSelector =
    "application:didFailToRegisterForRemoteNotificationsWithError:";
/// application, userInfo.
inline constexpr std::string_view kDidReceiveRemoteNotificationSelector =
    "application:didReceiveRemoteNotification:";
/// application, userInfo, fetchCompletionHandler.
inline constexpr std::string_view kDidReceiveRemoteNotificationFetchSelector =
    "application:didReceiveRemoteNotification:fetchCompletionHandler:";
/// application, identifier, userInfo, completionHandler.
inline constexpr std::string_view kHandleActionSelector =
    "application:handleActionWithIdentifier:forRemoteNotification:completionHandler:";
/// application, identifier, userInfo, responseInfo, completionHandler.
inline constexpr std::string_view kHandleActionWithResponseInfoSelector =
    "application:handleActionWithIdentifier:forRemoteNotification:withResponseInfo:"
    "completionHandler:";

/// The platform's type encodings of those callbacks, by number of object
/// arguments after the receiver and selector (a trailing block is "@?").
inline constexpr std::string_view kTwoObjectsTypeEncoding = "v32@0:8@16@24";
inline constexpr std::string_view kTwoObjectsAndBlockTypeEncoding = "v40@0:8@16@24@?32";
inline constexpr std::string_view kThreeObjectsAndBlockTypeEncoding = "v48@0:8@16@24@32@?40";
inline constexpr std::string_view kFourObjectsAndBlockTypeEncoding = "v56@0:8@16@24@32@40@?48";
/// A method with no arguments and no result.
inline constexpr std::string_view kNoArgumentsTypeEncoding = "v16@0:8";

/// The application's delegate object; null only after a test set none.
std::shared_ptr<Object> delegateObject(const Application& app);
/// Makes `delegate` the application's delegate object (null: none at all).
void setDelegateObject(Application& app, std::shared_ptr<Object> delegate);

/// A delegate object of a new class (named `className`) with one method for
/// each callback `delegate` provides, forwarding to it.
std::shared_ptr<Object> makeDelegateObject(ApplicationDelegate delegate,
                                           std::string className = "ApplicationDelegate");

/// The type encoding of one of the six callbacks above; empty for any other
/// selector.
QUORVIA_EXPORT std::string_view applicationDelegateTypeEncoding(std::string_view selector);

/// Delivers one callback to the application's current delegate, on the
/// calling thread (the platform calls it on the main thread), the way the
/// platform calls optional delegate methods: only when the delegate responds
/// to `selector`. Fills in the application when `arguments` has none. Returns
/// whether the delegate got the message (false: no delegate, or it does not
/// respond).
QUORVIA_EXPORT bool deliverToApplicationDelegate(std::string_view selector,
                                                 MessageArguments arguments);

}  // namespace quorvia::platform
