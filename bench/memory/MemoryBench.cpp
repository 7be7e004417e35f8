// Resident memory the SDK adds to a host, phase by phase: VmRSS before
// anything of the SDK ran; started and idle (its first fetch still on the
// wire); after that fetch answered; with one banner presented and one frame
// rendered (the headline figure); after the banner was dismissed and slid
// out. Each phase prints where its growth went, mapping by mapping, and the
// heap in use. Runs once; the figures are counters in the benchmark's output.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
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
#include "platform/URLSession.h"
#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/HostWindow.h"
#include "quorvia/platform/RunLoop.h"
#include "sdk/SDKState.h"
#include "ui/QVNotificationView.h"

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
      // A mapping of no file ends the line: getline then leaves `mapping` as it was.
      mapping.clear();
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

// Start-up's poll fetch is held until the benchmark lets it answer, with no
// poll; the banner comes from a push.
class HeldFetchTransport final : public platform::URLTransport {
 public:
  void start(platform::URLRequest, platform::ServerTrustPolicy, Done done) override {
    held_.push_back(std::move(done));
  }
  void answerAll() {
    for (auto& done : std::exchange(held_, {})) {
      const std::string body = R"({"results":[]})";
      platform::TransportResult result;
      result.response = platform::HTTPURLResponse{"", 200, {}};
      result.data = platform::Bytes(body.begin(), body.end());
      platform::dispatch_async([done = std::move(done), result = std::move(result)]() mutable {
        done(std::move(result));
      });
    }
  }

 private:
  std::vector<Done> held_;
};

// What the process holds at one moment.
struct Snapshot {
  double rssKb = statusKb("VmRSS");
  double anonKb = statusKb("RssAnon");
  // In use in the main arena and in blocks of their own (large ones are mapped).
  double heapKb = static_cast<double>(mallinfo2().uordblks + mallinfo2().hblkhd) / 1024.0;
  std::map<std::string, long> mappings = residentByMapping();
};

// Prints the phase and records its figures, all relative to `start`.
void phase(benchmark::State& state, const char* key, const char* title, const Snapshot& start,
           const Snapshot& previous, const Snapshot& now) {
  std::printf(
      "\n== %s: resident %+.0f kB since the start (%+.0f kB in this phase), anonymous "
      "%+.0f kB, heap in use %+.0f kB\n",
      title, now.rssKb - start.rssKb, now.rssKb - previous.rssKb, now.anonKb - start.anonKb,
      now.heapKb - start.heapKb);
  printGrowth(previous.mappings, now.mappings);
  state.counters[std::string(key) + "_rss_kb"] = now.rssKb - start.rssKb;
  state.counters[std::string(key) + "_anon_kb"] = now.anonKb - start.anonKb;
  state.counters[std::string(key) + "_heap_kb"] = now.heapKb - start.heapKb;
}

void BM_ResidentMemoryOfStartedSdkWithBanner(benchmark::State& state) {
  // The host's own frame buffer, drawn before the SDK starts: a host has it
  // with or without the SDK, and the banner is painted into it.
  constexpr int kWidth = 750, kHeight = 1334;
  std::vector<std::uint8_t> pixels(std::size_t{kWidth} * kHeight * 4, 0xff);
  const platform::PixelBuffer buffer{pixels.data(), kWidth, kHeight, kWidth * 4};
  const Snapshot start;
  for (auto _ : state) {
    auto env = platform::ConfigurableEnvironment::install(
        std::filesystem::temp_directory_path() / "quorvia-bench-memory",
        platform::RunLoop::Clock::kVirtual);
    platform::RunLoop* loop = &env->mainRunLoop();
    env->setLogSink([](std::string_view) {});
    env->setKeychainStore(platform::makeInMemoryKeychainStore());
    auto transport = std::make_shared<HeldFetchTransport>();
    env->setURLTransport(transport);
    platform::HostWindow window({375, 667}, 2);
    window.setFocused(true);

    QuorviaSDK::initWithAppToken("bench-app-token", std::nullopt, /*swizzling=*/false);
    loop->advance(platform::seconds(0.2));
    const Snapshot idle;
    phase(state, "idle", "started and idle", start, start, idle);

    transport->answerAll();
    loop->advance(platform::seconds(0.2));
    const Snapshot fetched;
    phase(state, "fetched", "after the first fetch", start, idle, fetched);

    QuorviaSDK::handleRemoteNotification(
        platform::Value{{"poll",
                         {{"id", 1},
                          {"question", "Coffee or tea?"},
                          {"options", {{{"text", "Coffee"}}, {{"text", "Tea"}}}}}}});
    loop->advance(platform::seconds(0.5));
    benchmark::DoNotOptimize(window.paint(buffer));
    auto banner = sdk::SDKState::shared().banner;
    auto view = banner->presentedPollView();
    if (!view) state.SkipWithError("no banner");
    const Snapshot shown;
    phase(state, "banner", "a banner shown, one frame rendered", start, fetched, shown);

    if (view) banner->notificationViewDidPressClose(view);
    loop->advance(platform::seconds(0.5));
    benchmark::DoNotOptimize(window.paint(buffer));
    const Snapshot hidden;
    phase(state, "hidden", "the banner dismissed and gone, one frame rendered", start, shown,
          hidden);
  }
  state.counters["rss_before_kb"] = start.rssKb;
}
BENCHMARK(BM_ResidentMemoryOfStartedSdkWithBanner)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
