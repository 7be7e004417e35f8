// Rendering and layout costs of the expanded poll banner in the default
// 375 x 667 window at scale 2.

#include <benchmark/benchmark.h>

#include <filesystem>
#include <memory>

#include "../../tests/ui/BannerScene.h"
#include "platform/ConfigurableEnvironment.h"
#include "platform/Label.h"
#include "platform/Renderer.h"

namespace {

using namespace quorvia;

std::shared_ptr<QVNotificationView> expandedBanner() {
  static std::shared_ptr<QVNotificationView> view = [] {
    auto env = platform::ConfigurableEnvironment::install(
        std::filesystem::temp_directory_path() / "quorvia-bench-ui",
        platform::RunLoop::Clock::kVirtual);
    env->setLogSink([](std::string_view) {});
    return testing::makeBannerScene(env->mainRunLoop(), true);
  }();
  return view;
}

void BM_RenderExpandedBanner(benchmark::State& state) {
  auto view = expandedBanner();
  auto window = platform::keyWindow();
  for (auto _ : state) {
    auto image = platform::Renderer::render(*window);
    benchmark::DoNotOptimize(image.rgba.data());
  }
}
BENCHMARK(BM_RenderExpandedBanner)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

// One layout pass of the banner's table: every visible row asked for again,
// sized and placed.
void BM_LayoutPass(benchmark::State& state) {
  auto view = expandedBanner();
  for (auto _ : state) {
    view->tableView()->layoutSubviews();
    platform::mainRunLoop().drainOnce();  // the masks the pass schedules
  }
}
BENCHMARK(BM_LayoutPass)->Unit(benchmark::kMicrosecond)->Repetitions(5)->ReportAggregatesOnly(true);

// A question of one word without spaces, measured as the question row does:
// the time must not grow with the length past what a banner can show.
void BM_MeasureUnbrokenQuestion(benchmark::State& state) {
  const std::string text(static_cast<std::size_t>(state.range(0)), 'w');
  for (auto _ : state) {
    benchmark::DoNotOptimize(platform::measureTextHeight(text, "DejaVu Sans Bold 17", 323));
  }
}
BENCHMARK(BM_MeasureUnbrokenQuestion)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
