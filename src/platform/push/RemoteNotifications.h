#pragma once
// The platform's side of remote notifications: what the push service reports
// goes to the application delegate's callbacks, on the main queue.

#include <cstddef>

#include "quorvia/export.h"
#include "quorvia/platform/RunLoop.h"
#include "quorvia/platform/Value.h"

namespace quorvia::platform {

/// How long the app has to call a push's fetch completion handler before the
/// platform logs that it never did.
inline constexpr Duration kFetchCompletionDeadline = std::chrono::seconds(30);

/// Starts the process's push service, when there is one, with handlers that
/// deliver the token, a registration failure and each payload to the
/// application delegate. Each call replaces the handlers (the token is
/// delivered again). Any thread.
QUORVIA_EXPORT void startRemoteNotifications();

/// Delivers one push as the platform does: shows it as a desktop
/// notification when the app is not in front (presentRemoteNotification),
/// and hands it to the application delegate:
/// application:didReceiveRemoteNotification:fetchCompletionHandler: when the
/// delegate responds to it, else application:didReceiveRemoteNotification:.
/// The completion handler it passes counts only its first call and is logged
/// when not called within kFetchCompletionDeadline of the main queue's clock.
/// Main queue.
QUORVIA_EXPORT void deliverRemoteNotification(Value payload);

/// Delivered pushes whose fetch completion handler is neither called nor past
/// kFetchCompletionDeadline: all that the platform keeps of a push once the
/// delegate has it. Any thread.
QUORVIA_EXPORT std::size_t pushFetchCompletionsAwaited();

}  // namespace quorvia::platform
