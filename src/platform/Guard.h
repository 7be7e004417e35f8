#pragma once
// Internal: the boundary where an exception raised by malformed outside input
// stops, so that it never reaches the host.

#include <exception>
#include <string>
#include <string_view>

#include "quorvia/platform/Error.h"
#include "platform/Log.h"

namespace quorvia::platform {

/// Runs `body`; an exception it raises is written to the system log as
/// "QuorviaSDK: <where> dropped malformed input: <reason>" and dropped.
template <typename Body>
void runDroppingExceptions(std::string_view where, Body&& body) noexcept {
  try {
    body();
  } catch (const std::exception& e) {
    try {
      NSLog("QuorviaSDK: " + std::string(where) + " dropped malformed input: " + e.what());
    } catch (...) {
    }
  } catch (...) {
    NSLog("QuorviaSDK: " + std::string(where) + " dropped malformed input");
  }
}

}  // namespace quorvia::platform
