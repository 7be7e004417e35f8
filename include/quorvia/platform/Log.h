#pragma once
/// \file
/// The system log (NSLog). Safe to call from any thread.

#include <functional>
#include <string>
#include <string_view>

#include "quorvia/export.h"

namespace quorvia::platform {

/// Receives each logged message, without NSLog's timestamp prefix.
using LogSink = std::function<void(std::string_view message)>;

/// Writes one message to the installed sink. The default sink writes
/// "YYYY-MM-DD hh:mm:ss.mmm process[pid:tid] message" and a newline to stderr.
QUORVIA_EXPORT void NSLog(std::string_view message);

/// Installs the sink that receives every message; an empty function restores
/// the default stderr sink. The sink may be called from any thread, one call
/// at a time.
QUORVIA_EXPORT void setLogSink(LogSink sink);

}  // namespace quorvia::platform
