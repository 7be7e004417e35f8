#pragma once
/// \file
/// The system log (NSLog), and the library's switchable diagnostics. Safe to
/// call from any thread.

#include <string_view>

#include "quorvia/export.h"

namespace quorvia::platform {

/// Writes one message to the environment's log sink, one line at a time. The
/// desktop's sink writes "YYYY-MM-DD hh:mm:ss.mmm process[pid:tid] message"
/// and a newline to stderr. Only the few lines that must bypass the SDK's
/// debug switch are written with it directly; every other diagnostic goes
/// through debugLog().
QUORVIA_EXPORT void NSLog(std::string_view message);

/// Writes `message` through NSLog while the debug switch is on, and nothing
/// otherwise: a host that turns the SDK's logging off hears nothing from the
/// layers below it either.
QUORVIA_EXPORT void debugLog(std::string_view message);
/// The debug switch: on until the SDK's setDebug(false). Any thread.
QUORVIA_EXPORT void setDebugLogging(bool on);
QUORVIA_EXPORT bool debugLogging();

}  // namespace quorvia::platform
