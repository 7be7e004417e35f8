#pragma once
/// \file
/// View animations (UIView animateWithDuration:animations:completion:) on the
/// main-queue clock. Main thread.

#include <functional>

#include "quorvia/export.h"

namespace quorvia::platform {

/// Runs `animations` now. Frame and alpha changes made inside it take their
/// final (model) value at once, while the presented value moves from the old
/// value to the new one over `duration` seconds with the default ease-in-out
/// curve on platform::mainRunLoop()'s clock. `completion`, if any, is posted
/// with dispatch_after to run when the duration has passed, with finished
/// true.
QUORVIA_EXPORT void animateWithDuration(double duration, const std::function<void()>& animations,
                                        std::function<void(bool finished)> completion = {});

/// The default animation curve (cubic Bezier 0.42, 0, 0.58, 1) at progress
/// `t` in 0...1.
QUORVIA_EXPORT double easeInOut(double t);

}  // namespace quorvia::platform
