#pragma once
// The platform's notification centre on the desktop: a push with an alert that
// arrives while the app is not in front shows a notification with the buttons
// of its category, and the user's choice goes to the application delegate's
// action callbacks, on the main queue.

#include <cstddef>
#include <functional>
#include <string>

#include "quorvia/export.h"
#include "quorvia/platform/RunLoop.h"
#include "quorvia/platform/Value.h"

namespace quorvia::platform {

/// The action identifier the delegate gets when the user clicked the
/// notification itself.
inline constexpr const char* kDefaultActionIdentifier =
    "com.apple.UNNotificationDefaultActionIdentifier";

/// How long the app has to call an action's completion handler before the
/// platform logs that it never did.
inline constexpr Duration kActionCompletionDeadline = std::chrono::seconds(30);

/// Shows `payload` as a notification when it has an alert ("aps" "alert"),
/// the app is not active and the user allowed alerts: the app's name, the
/// alert text, and one button per action of the registered category named
/// by "aps" "category". Does nothing when the environment has no presenter.
/// Main queue.
QUORVIA_EXPORT void presentRemoteNotification(const Value& payload);

/// Delivers the user's choice on a notification to the application delegate:
/// application:handleActionWithIdentifier:forRemoteNotification:
/// withResponseInfo:completionHandler: when it responds to it, else the form
/// without response info. `identifier` is the button's, or "default" for the
/// notification itself (delivered as kDefaultActionIdentifier). The
/// completion handler counts only its first call and is logged when not
/// called within kActionCompletionDeadline of the main queue's clock. Main
/// queue.
QUORVIA_EXPORT void deliverNotificationAction(std::string identifier, Value payload);

/// Takes back the desktop notifications of pushes whose payload `matches`
/// accepts, shown or still to be shown: the app dealt with them itself.
/// `matches` runs on the presenter's thread. Does nothing when the
/// environment has no presenter. Any thread.
QUORVIA_EXPORT void withdrawRemoteNotifications(std::function<bool(const Value& payload)> matches);

/// Delivered actions whose completion handler is neither called nor past
/// kActionCompletionDeadline. Any thread.
QUORVIA_EXPORT std::size_t actionCompletionsAwaited();

}  // namespace quorvia::platform
