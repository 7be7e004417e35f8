#pragma once
/// \file
/// Wall-clock time. A host uses SystemTime when it writes an environment of
/// its own (Environment::now()); the SDK reads dates and cache expiry from it,
/// apart from the main queue's monotonic clock.

#include <chrono>

#include "quorvia/export.h"

namespace quorvia::platform {

using SystemTime = std::chrono::system_clock::time_point;

/// The current instant (NSDate date): the environment's wall clock. Any thread.
QUORVIA_EXPORT SystemTime wallClockNow();

}  // namespace quorvia::platform
