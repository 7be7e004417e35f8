// A push from publish to the app: a poll payload published to a loopback
// mosquitto, until the push service's handler has it on the main queue.
// Reports the latency's p50 and p99 (target: p99 under 20 ms).

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/ConfigurableEnvironment.h"
#include "push/Publisher.h"
#include "quorvia/platform/PushService.h"
#include "quorvia/platform/RunLoop.h"
#include "support/MosquittoBroker.h"

namespace {

namespace platform = quorvia::platform;
using quorvia::bench::Publisher;
using quorvia::testing::MosquittoBroker;
using Clock = std::chrono::steady_clock;

constexpr auto kBound = std::chrono::seconds(10);

const std::string kPayload =
    R"({"aps":{"alert":"Coffee or tea?","category":"A.B"},)"
    R"("poll":{"id":7,"question":"Coffee or tea?","options":[{"text":"A"},{"text":"B"}]}})";

void BM_PushToHandler(benchmark::State& state) {
  std::string pattern = (std::filesystem::temp_directory_path() / "quorvia-push-bench-XXXXXX");
  if (!::mkdtemp(pattern.data())) return state.SkipWithError("no temporary directory");
  const std::filesystem::path directory = pattern;
  {
    MosquittoBroker broker(directory / "broker");
    std::string error;
    if (!broker.start(MosquittoBroker::freePort(), &error))
      return state.SkipWithError(error.c_str());
    auto env = platform::ConfigurableEnvironment::install(directory / "data",
                                                          platform::RunLoop::Clock::kReal);
    platform::RunLoop* loop = &env->mainRunLoop();

    platform::Bytes token;
    std::size_t received = 0;
    Clock::time_point arrivedAt;
    auto service = platform::makeMqttPushService({broker.url(), directory / "data"});
    service->registerForRemoteNotifications({[&](platform::Bytes t) { token = std::move(t); },
                                             [](platform::Error) {},
                                             [&](platform::Value) {
                                               ++received;
                                               arrivedAt = Clock::now();
                                             }});
    if (!loop->runUntil([&] { return !token.empty(); }, kBound)) {
      return state.SkipWithError("no device token");
    }
    Publisher publisher(broker.port());
    const std::string topic = quorvia::testing::deviceTopic(token);

    std::vector<double> latenciesMs;
    for (auto _ : state) {
      const std::size_t expected = received + 1;
      const auto publishedAt = Clock::now();
      if (!publisher.publish(topic, kPayload)) return state.SkipWithError("publish failed");
      if (!loop->runUntil([&] { return received >= expected; }, kBound)) {
        return state.SkipWithError("a push did not arrive");
      }
      latenciesMs.push_back(
          std::chrono::duration<double, std::milli>(arrivedAt - publishedAt).count());
    }
    std::sort(latenciesMs.begin(), latenciesMs.end());
    auto percentile = [&](double p) {
      return latenciesMs[static_cast<std::size_t>(p * static_cast<double>(latenciesMs.size() - 1))];
    };
    state.counters["p50_ms"] = percentile(0.50);
    state.counters["p99_ms"] = percentile(0.99);
    service.reset();
    loop->drainOnce();
  }
  std::filesystem::remove_all(directory);
}
BENCHMARK(BM_PushToHandler)->Iterations(2000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
