// Wake-ups of an idle started SDK: once start-up's work is done, neither the
// main queue nor the transport thread (nor any other thread the SDK started)
// may wake while nothing is pending. The host here waits as a host would, in
// poll() on the run loop's wake descriptor.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/ConfigurableEnvironment.h"
#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/RunLoop.h"

namespace {

using namespace quorvia;

// Context switches of every thread of the process but the calling one.
long otherThreadsSwitches() {
  const long self = syscall(SYS_gettid);
  long total = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    if (task.path().filename() == std::to_string(self)) continue;
    std::ifstream status(task.path() / "status");
    std::string line;
    while (std::getline(status, line)) {
      if (line.rfind("voluntary_ctxt_switches:", 0) == 0 ||
          line.rfind("nonvoluntary_ctxt_switches:", 0) == 0) {
        total += std::atol(line.c_str() + line.find(':') + 1);
      }
    }
  }
  return total;
}

void BM_IdleWakeupsPerSecond(benchmark::State& state) {
  // The start-up fetch goes to a closed port: it fails at once, and the
  // transport thread it started stays.
  ::setenv("QUORVIA_SERVICE_BASE_URL", "http://127.0.0.1:9", 1);
  auto env = platform::ConfigurableEnvironment::install(
      std::filesystem::temp_directory_path() / "quorvia-bench-idle",
      platform::RunLoop::Clock::kReal);
  env->setLogSink([](std::string_view) {});
  QuorviaSDK::initWithAppToken("idle-app-token", std::nullopt, /*swizzling=*/false);
  platform::RunLoop& loop = env->mainRunLoop();
  loop.runFor(platform::seconds(0.5));  // the failed fetch's answer

  constexpr auto kWindow = std::chrono::seconds(2);
  long wakeups = 0;
  double seconds = 0;
  for (auto _ : state) {
    const long before = otherThreadsSwitches();
    const auto start = std::chrono::steady_clock::now();
    const auto end = start + kWindow;
    for (auto now = start; now < end; now = std::chrono::steady_clock::now()) {
      pollfd wake{loop.wakeFileDescriptor(), POLLIN, 0};
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - now).count();
      if (::poll(&wake, 1, static_cast<int>(left)) > 0) {
        ++wakeups;  // the main queue had work
        loop.drainOnce();
      }
    }
    wakeups += otherThreadsSwitches() - before;
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }
  state.counters["wakeups_per_second"] = seconds > 0 ? static_cast<double>(wakeups) / seconds : 0;
}
BENCHMARK(BM_IdleWakeupsPerSecond)->Iterations(2)->UseRealTime()->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
