#pragma once
// Internal: the animation block in progress on the main thread, which views
// consult when a frame or alpha changes.

namespace quorvia::platform::detail {

/// The duration of the animation block being run, or a negative value when
/// no block is running.
double currentAnimationDuration();
/// Now on the main-queue clock, in seconds.
double mainClockSeconds();

}  // namespace quorvia::platform::detail
