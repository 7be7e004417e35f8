// What an embedding host pays per frame: the banner's slide-in, its expansion and keyboard focus
// moving through it painted into a 750 x 1334 pixel buffer (375 x 667 points at scale 2) with
// damage tracking, and what an idle host with a shown banner is asked to repaint (nothing).

#include <benchmark/benchmark.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <memory>
#include <vector>

#include "platform/ConfigurableEnvironment.h"
#include "quorvia/platform/HostWindow.h"
#include "platform/Window.h"
#include "sdk/SDKState.h"

namespace {

using namespace quorvia;
// The paint's own CPU time: on a shared machine wall time measures the scheduler.
double threadMillis() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
}

constexpr double kFrame = 1.0 / 60;

struct Host {
  std::shared_ptr<platform::ConfigurableEnvironment> env;
  std::unique_ptr<platform::HostWindow> window;
  std::vector<std::uint8_t> pixels = std::vector<std::uint8_t>(750u * 1334u * 4u);
  int repaints = 0;

  Host() {
    env = platform::ConfigurableEnvironment::install(
        std::filesystem::temp_directory_path() / "quorvia-bench-host-window",
        platform::RunLoop::Clock::kVirtual);
    env->setLogSink([](std::string_view) {});
    window = std::make_unique<platform::HostWindow>(platform::Size{375, 667}, 2);
    window->setRepaintCallback([this] { ++repaints; });
    paint();
  }
  std::vector<platform::PixelRect> paint() {
    return window->paint({pixels.data(), 750, 1334, 3000});
  }
  platform::RunLoop& loop() { return env->mainRunLoop(); }
  std::shared_ptr<QVNotificationView> present() {
    const platform::Value poll = {{"id", 17},
                                  {"question", "How do you like the new checkout?"},
                                  {"options",
                                   {{{"text", "\xF0\x9F\x91\x8D Love it"}},
                                    {{"text", "\xF0\x9F\xA4\x94 Not sure"}},
                                    {{"text", "\xF0\x9F\x91\x8E Not for me"}}}}};
    return sdk::SDKState::shared().banner->presentPollWithPollDict(&poll);
  }
  // Hides the banner and takes it out of the window, so every round starts alike.
  void clear(const std::shared_ptr<QVNotificationView>& view) {
    sdk::SDKState::shared().banner->hideNotificationView(view);
    loop().advance(platform::seconds(0.4));
    view->removeFromSuperview();
    paint();
  }
  // Paints frame after frame as a 60 Hz host does for `seconds`; adds each paint's CPU time.
  void frames(double seconds, std::vector<double>& millis) {
    for (double t = 0; t < seconds + kFrame; t += kFrame) {
      loop().advance(platform::seconds(kFrame));
      const double start = threadMillis();
      auto damage = paint();
      const double spent = threadMillis() - start;
      benchmark::DoNotOptimize(damage.data());
      if (!damage.empty()) millis.push_back(spent);
    }
  }
};

Host& host() {
  static Host shared;
  return shared;
}

void report(benchmark::State& state, std::vector<double> millis) {
  if (millis.empty()) return;
  std::sort(millis.begin(), millis.end());
  auto at = [&](double q) { return millis[static_cast<std::size_t>(q * (millis.size() - 1))]; };
  state.counters["frames"] = static_cast<double>(millis.size());
  state.counters["p50_ms"] = at(0.5);
  state.counters["p99_ms"] = at(0.99);
  state.counters["max_ms"] = millis.back();
}

void BM_SlideInFrames(benchmark::State& state) {
  Host& h = host();
  std::vector<double> millis;
  for (auto _ : state) {
    auto view = h.present();
    h.frames(0.3, millis);
    state.PauseTiming();
    h.clear(view);
    state.ResumeTiming();
  }
  report(state, millis);
}
BENCHMARK(BM_SlideInFrames)->Unit(benchmark::kMillisecond)->Iterations(20);

void BM_ExpandFrames(benchmark::State& state) {
  Host& h = host();
  std::vector<double> millis;
  for (auto _ : state) {
    state.PauseTiming();
    auto view = h.present();
    h.loop().advance(platform::seconds(0.35));
    h.paint();
    state.ResumeTiming();
    sdk::SDKState::shared().banner->notificationViewDidPressExpand(view);
    h.frames(0.25, millis);
    state.PauseTiming();
    h.clear(view);
    state.ResumeTiming();
  }
  report(state, millis);
}
BENCHMARK(BM_ExpandFrames)->Unit(benchmark::kMillisecond)->Iterations(20);

// Keyboard focus moving through an expanded banner: each Tab moves the focus ring, a repaint of
// the rows it leaves and reaches, as a pointer's highlight of a row repaints that row.
void BM_FocusMoveFrames(benchmark::State& state) {
  Host& h = host();
  std::vector<double> millis;
  for (auto _ : state) {
    state.PauseTiming();
    auto view = h.present();
    h.loop().advance(platform::seconds(0.35));
    sdk::SDKState::shared().banner->notificationViewDidPressExpand(view);
    h.loop().advance(platform::seconds(0.25));
    h.paint();
    h.window->focusBanner();
    h.loop().advance(platform::seconds(kFrame));
    h.paint();
    state.ResumeTiming();
    for (int i = 0; i < 10; ++i) {
      h.window->keyDown(platform::Key::kTab);
      h.window->keyUp(platform::Key::kTab);
      h.frames(kFrame, millis);
    }
    state.PauseTiming();
    h.clear(view);
    state.ResumeTiming();
  }
  report(state, millis);
}
BENCHMARK(BM_FocusMoveFrames)->Unit(benchmark::kMillisecond)->Iterations(20);

// A shown, settled banner and nothing else happening: ten seconds of the host's loop must not
// ask for a single repaint.
void BM_IdleShownBannerRepaints(benchmark::State& state) {
  Host& h = host();
  auto view = h.present();
  h.loop().advance(platform::seconds(0.5));
  h.paint();
  int repaints = 0;
  for (auto _ : state) {
    h.repaints = 0;
    h.loop().advance(platform::seconds(10));
    repaints += h.repaints;
    if (h.repaints) h.paint();
  }
  state.counters["repaints"] = repaints;
  h.clear(view);
}
BENCHMARK(BM_IdleShownBannerRepaints)->Iterations(10);

}  // namespace

BENCHMARK_MAIN();
