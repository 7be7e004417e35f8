#pragma once
/// \file
/// Accessibility switches the user sets in the system's settings.

#include "quorvia/export.h"

namespace quorvia::platform {

/// Whether the user asked the system to reduce transparency
/// (UIAccessibilityIsReduceTransparencyEnabled). Off by default. Any thread.
QUORVIA_EXPORT bool UIAccessibilityIsReduceTransparencyEnabled();
/// Host/test side: the user's reduce-transparency switch. Any thread.
QUORVIA_EXPORT void setReduceTransparencyEnabled(bool enabled);

}  // namespace quorvia::platform
