#pragma once
/// \file
/// The system log (NSLog). Safe to call from any thread.

#include <string_view>

#include "quorvia/export.h"

namespace quorvia::platform {

/// Writes one message to the environment's log sink, one line at a time. The
/// desktop's sink writes "YYYY-MM-DD hh:mm:ss.mmm process[pid:tid] message"
/// and a newline to stderr.
QUORVIA_EXPORT void NSLog(std::string_view message);

}  // namespace quorvia::platform
