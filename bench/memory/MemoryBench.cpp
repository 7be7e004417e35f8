// Resident memory the SDK adds to a host: VmRSS before anything of the SDK
// ran, and after start-up, one banner presented and one frame rendered. Runs
// once; the figures are counters in the benchmark's output.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "platform/ConfigurableEnvironment.h"
#include "platform/KeychainStore.h"
#include "platform/Renderer.h"
#include "platform/URLSession.h"
#include "platform/Window.h"
#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/Application.h"
#include "quorvia/platform/RunLoop.h"
#include "sdk/SDKState.h"

namespace {

using namespace quorvia;

// Resident kB of each mapping of the process, summed by what is mapped: a
// file's path, or "[heap]", "[stack]", "[anon]" for memory of no file.
std::map<std::string, long> residentByMapping() {
  std::map<std::string, long> rss;
  std::ifstream in("/proc/self/smaps");
  std::string line, mapping;
  while (std::getline(in, line)) {
    if (!line.empty() && std::isxdigit(static_cast<unsigned char>(line[0])) &&
        line.find('-') < line.find(' ')) {
      // "start-end perms offset dev inode [path]"
      std::istringstream fields(line);
      std::string range, perms, offset, dev, inode;
      fields >> range >> perms >> offset >> dev >> inode;
      std::getline(fields >> std::ws, mapping);
      if (mapping.empty()) mapping = "[anon]";
    } else if (line.rfind("Rss:", 0) == 0) {
      rss[mapping] += std::atol(line.c_str() + 4);
    }
  }
  return rss;
}

// Where the growth between `before` and `after` went, largest first, on stdout.
void printGrowth(const std::map<std::string, long>& before,
                 const std::map<std::string, long>& after) {
  std::vector<std::pair<long, std::string>> grown;
  for (const auto& [mapping, kb] : after) {
    const auto was = before.find(mapping);
    const long delta = kb - (was == before.end() ? 0 : was->second);
    if (delta > 0) grown.emplace_back(delta, mapping);
  }
  std::sort(grown.rbegin(), grown.rend());
  std::printf("resident growth by mapping (kB):\n");
  for (const auto& [kb, mapping] : grown) std::printf("%8ld  %s\n", kb, mapping.c_str());
}

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
  const auto mappingsBefore = residentByMapping();
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
  printGrowth(mappingsBefore, residentByMapping());
  state.counters["rss_added_kb"] = statusKb("VmRSS") - rssBefore;
  state.counters["anon_added_kb"] = statusKb("RssAnon") - anonBefore;
  state.counters["rss_before_kb"] = rssBefore;
}
BENCHMARK(BM_ResidentMemoryOfStartedSdkWithBanner)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
