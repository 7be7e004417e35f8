#pragma once
/// \file
/// Wall-clock time (dates, expiry), separate from the main queue's monotonic
/// clock so that tests can fake each on its own.

#include <chrono>

#include "quorvia/export.h"

namespace quorvia::platform {

using SystemTime = std::chrono::system_clock::time_point;

/// The current instant (NSDate date): the environment's wall clock. Any thread.
QUORVIA_EXPORT SystemTime wallClockNow();

}  // namespace quorvia::platform
