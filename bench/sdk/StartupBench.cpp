// Start-up cost of initWithAppToken on the platform doubles (virtual main
// queue, silent log, temporary data directory), beside an empty call.
#include <benchmark/benchmark.h>

#include <filesystem>

#include "platform/ConfigurableEnvironment.h"
#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/RunLoop.h"
#include "platform/URLSession.h"

namespace {

using namespace quorvia;

// Start-up fetches polls; the double answers each request with a transport
// error on the main queue, so no request leaves the process.
class OfflineTransport final : public platform::URLTransport {
 public:
  void start(platform::URLRequest, platform::ServerTrustPolicy, Done done) override {
    platform::dispatch_async([done = std::move(done)] {
      platform::TransportResult result;
      result.error =
          platform::Error{platform::NSURLErrorDomain, platform::NSURLErrorNotConnectedToInternet};
      done(std::move(result));
    });
  }
};

void installDoubles() {
  static bool done = [] {
    auto env = platform::ConfigurableEnvironment::install(
        std::filesystem::temp_directory_path() / "quorvia-bench-startup",
        platform::RunLoop::Clock::kVirtual);
    env->setURLTransport(std::make_shared<OfflineTransport>());
    env->setLogSink([](std::string_view) {});
    return true;
  }();
  (void)done;
}

[[gnu::noinline]] void emptyCall(const std::string& token) {
  benchmark::DoNotOptimize(token.data());
}

void BM_EmptyCall(benchmark::State& state) {
  const std::string token = "bench-app-token";
  for (auto _ : state) emptyCall(token);
}

// The first start-up of the process: creates the shared instance too.
void BM_FirstStartup(benchmark::State& state) {
  installDoubles();
  for (auto _ : state) QuorviaSDK::initWithAppToken("bench-app-token", std::nullopt);
  platform::mainRunLoop().drainOnce();
}

// Every later start-up: what a host pays each time it calls initWithAppToken.
void BM_Startup(benchmark::State& state) {
  installDoubles();
  QuorviaSDK::initWithAppToken("bench-app-token", std::nullopt);
  for (auto _ : state) {
    QuorviaSDK::initWithAppToken("bench-app-token", std::nullopt);
    platform::mainRunLoop().drainOnce();
  }
}

}  // namespace

BENCHMARK(BM_FirstStartup)->Iterations(1)->Repetitions(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_EmptyCall)->Repetitions(9)->DisplayAggregatesOnly(true)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Startup)->Repetitions(9)->DisplayAggregatesOnly(true)->Unit(benchmark::kMicrosecond);
BENCHMARK_MAIN();
