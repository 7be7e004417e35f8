#pragma once
/// \file
/// Wall-clock time (dates, expiry), separate from the main queue's monotonic
/// clock so that tests can fake each on its own.

#include <chrono>
#include <functional>

#include "quorvia/export.h"

namespace quorvia::platform {

using SystemTime = std::chrono::system_clock::time_point;

/// The current instant (NSDate date). Thread-safe.
QUORVIA_EXPORT SystemTime wallClockNow();

/// Installs the source of wallClockNow(); an empty function restores the
/// real system clock.
QUORVIA_EXPORT void setWallClock(std::function<SystemTime()> now);

}  // namespace quorvia::platform
