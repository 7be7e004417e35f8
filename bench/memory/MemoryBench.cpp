// Resident memory the SDK adds to a host: VmRSS before anything of the SDK
// ran, and after start-up, one banner presented and one frame rendered. Runs
// once; the figures are counters in the benchmark's output.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "platform/ConfigurableEnvironment.h"
#include "platform/KeychainStore.h"
#include "platform/Renderer.h"
#include "platform/URLSession.h"
#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/Application.h"
#include "quorvia/platform/RunLoop.h"
#include "quorvia/platform/Window.h"
#include "sdk/SDKState.h"

namespace {

using namespace quorvia;

// A field of /proc/self/status in kB, or -1.
double statusKb(const std::string& field) {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(field + ":", 0) == 0) return std::stod(line.substr(field.size() + 1));
  }
  return -1;
}

// Start-up's poll fetch finds nothing; the banner comes from a push.
class EmptyFetchTransport final : public platform::URLTransport {
 public:
  void start(platform::URLRequest, platform::ServerTrustPolicy, Done done) override {
    platform::dispatch_async([done = std::move(done)] {
      const std::string body = R"({"results":[]})";
      platform::TransportResult result;
      result.response = platform::HTTPURLResponse{"", 200, {}};
      result.data = platform::Bytes(body.begin(), body.end());
      done(std::move(result));
    });
  }
};

void BM_ResidentMemoryOfStartedSdkWithBanner(benchmark::State& state) {
  const double rssBefore = statusKb("VmRSS");
  const double anonBefore = statusKb("RssAnon");
  for (auto _ : state) {
    auto env = platform::ConfigurableEnvironment::install(
        std::filesystem::temp_directory_path() / "quorvia-bench-memory",
        platform::RunLoop::Clock::kVirtual);
    platform::RunLoop* loop = &env->mainRunLoop();
    env->setLogSink([](std::string_view) {});
    env->setKeychainStore(platform::makeInMemoryKeychainStore());
    env->setURLTransport(std::make_shared<EmptyFetchTransport>());
    // The host's window, as a HostWindow would make it.
    auto window = platform::View::make<platform::Window>(platform::Rect::make(0, 0, 375, 667));
    window->setScale(2);
    platform::Application::sharedApplication().setKeyWindow(window);

    QuorviaSDK::initWithAppToken("bench-app-token", std::nullopt, /*swizzling=*/false);
    loop->runUntil([] { return false; }, platform::seconds(0.2));  // the fetch's answer
    QuorviaSDK::handleRemoteNotification(
        platform::Value{{"poll",
                         {{"id", 1},
                          {"question", "Coffee or tea?"},
                          {"options", {{{"text", "Coffee"}}, {{"text", "Tea"}}}}}}});
    loop->advance(platform::seconds(0.5));
    const auto frame = platform::Renderer::render(*window);
    benchmark::DoNotOptimize(frame.rgba.data());
    if (!sdk::SDKState::shared().banner->presentedPollView()) state.SkipWithError("no banner");
  }
  state.counters["rss_added_kb"] = statusKb("VmRSS") - rssBefore;
  state.counters["anon_added_kb"] = statusKb("RssAnon") - anonBefore;
  state.counters["rss_before_kb"] = rssBefore;
}
BENCHMARK(BM_ResidentMemoryOfStartedSdkWithBanner)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
