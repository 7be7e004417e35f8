#include "platform/Cpu.h"

#include <sched.h>

#include <thread>

namespace quorvia::platform {

bool mayRunThreadsInParallel() {
  // The affinity mask, not the machine's CPU count: a process started under
  // taskset or in a CPU-limited container sees only its own CPUs.
  static const bool parallel = [] {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof set, &set) == 0) return CPU_COUNT(&set) > 1;
    return std::thread::hardware_concurrency() > 1;
  }();
  return parallel;
}

}  // namespace quorvia::platform
