#pragma once
/// \file
/// Accessibility switches the user sets in the system's settings.

#include "quorvia/export.h"

namespace quorvia::platform {

/// Whether the user asked the system to reduce transparency
/// (UIAccessibilityIsReduceTransparencyEnabled), as the environment's device
/// information says. Any thread.
QUORVIA_EXPORT bool UIAccessibilityIsReduceTransparencyEnabled();

}  // namespace quorvia::platform
