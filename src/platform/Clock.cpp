#include "quorvia/platform/Clock.h"

#include <mutex>

namespace quorvia::platform {
namespace {
std::mutex& clockMutex() {
  static auto* mu = new std::mutex;
  return *mu;
}
std::function<SystemTime()>& installedClock() {
  static auto* clock = new std::function<SystemTime()>;
  return *clock;
}
}  // namespace

SystemTime wallClockNow() {
  std::function<SystemTime()> clock;
  {
    std::lock_guard lock(clockMutex());
    clock = installedClock();
  }
  return clock ? clock() : std::chrono::system_clock::now();
}

void setWallClock(std::function<SystemTime()> now) {
  std::lock_guard lock(clockMutex());
  installedClock() = std::move(now);
}

}  // namespace quorvia::platform
