#pragma once
// Internal: the boundary where an exception raised by malformed outside input
// stops, so that it never reaches the host.

#include <exception>
#include <string>
#include <string_view>

#include "quorvia/platform/Error.h"
#include "platform/Log.h"

namespace quorvia::platform {

/// Runs `body`; an exception it raises is dropped, with the debug line
/// "QuorviaSDK: <where> dropped malformed input: <reason>".
template <typename Body>
void runDroppingExceptions(std::string_view where, Body&& body) noexcept {
  try {
    body();
  } catch (const std::exception& e) {
    try {
      debugLog("QuorviaSDK: " + std::string(where) + " dropped malformed input: " + e.what());
    } catch (...) {
    }
  } catch (...) {
    debugLog("QuorviaSDK: " + std::string(where) + " dropped malformed input");
  }
}

}  // namespace quorvia::platform
