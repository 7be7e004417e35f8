#include "platform/Log.h"

#include <atomic>
#include <mutex>

#include "quorvia/platform/Environment.h"

namespace quorvia::platform {
namespace {
std::atomic<bool> gDebugLogging{true};
}  // namespace

void NSLog(std::string_view message) {
  // Never destroyed: logging may run during exit.
  static auto* const mu = new std::mutex;
  std::lock_guard lock(*mu);
  environment().log(message);
}

void debugLog(std::string_view message) {
  if (debugLogging()) NSLog(message);
}

void setDebugLogging(bool on) { gDebugLogging.store(on, std::memory_order_relaxed); }

bool debugLogging() { return gDebugLogging.load(std::memory_order_relaxed); }

}  // namespace quorvia::platform
