// Wide JSON objects within the body limits: how long decoding a million keys takes, and how long
// the main queue is held at the longest when a fetch answer or a push carries such an object.
// Decoding happens where the bytes arrive; the main thread only sees the value.
#include <benchmark/benchmark.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "platform/ApplicationDelegateRuntime.h"
#include "platform/ConfigurableEnvironment.h"
#include "platform/URLSession.h"
#include "platform/push/RemoteNotifications.h"
#include "quorvia/Observer.h"
#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/RunLoop.h"

namespace {

using namespace quorvia;
using Clock = std::chrono::steady_clock;

// {"<prefix>":{"k0":0,"k1":1,...}} with `keys` keys in the inner object, plus `around`.
std::string wideObject(std::size_t keys, const std::string& around = "") {
  std::string text = "{" + around + "\"unused\":{";
  for (std::size_t i = 0; i < keys; ++i) {
    if (i) text += ',';
    text += "\"k" + std::to_string(i) + "\":" + std::to_string(i);
  }
  return text + "}}";
}

void BM_DecodeMillionKeyObject(benchmark::State& state) {
  const std::string text = wideObject(1'000'000);
  for (auto _ : state) {
    auto value = platform::parseJson(text);
    if (!value || (*value)["unused"].size() != 1'000'000) state.SkipWithError("not decoded");
    benchmark::DoNotOptimize(value);
  }
  state.counters["bytes"] = static_cast<double>(text.size());
}
BENCHMARK(BM_DecodeMillionKeyObject)->Iterations(3)->Unit(benchmark::kMillisecond);

// Answers every request from a thread of its own with one body, as a network would.
class WideAnswerTransport final : public platform::URLTransport {
 public:
  explicit WideAnswerTransport(std::string body) : body_(std::move(body)) {}
  void start(platform::URLRequest, platform::ServerTrustPolicy, Done done) override {
    std::thread([this, done = std::move(done)] {
      platform::TransportResult result;
      result.response = platform::HTTPURLResponse{"", 200, {}};
      result.data = platform::Bytes(body_.begin(), body_.end());
      done(std::move(result));
    }).detach();
  }

 private:
  const std::string body_;
};

// Runs the main queue until `done`, timing each turn; the longest turn in milliseconds.
template <typename Done>
double longestTurnUntil(Done done) {
  auto& loop = platform::mainRunLoop();
  double longest = 0;
  const auto deadline = Clock::now() + std::chrono::seconds(60);
  while (!done() && Clock::now() < deadline) {
    const auto start = Clock::now();
    loop.drainOnce();
    longest =
        std::max(longest, std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    // Sleeps until work is posted or a timer falls due, running nothing meanwhile.
    pollfd wake{loop.wakeFileDescriptor(), POLLIN, 0};
    const auto next = loop.timeUntilNextTimer();
    ::poll(&wake, 1,
           next ? static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(*next).count())
                : 1000);
  }
  return longest;
}

// One process, one SDK: the fetch answer first, then pushes.
bool presented = false;
void startSdk(const std::string& fetchAnswer) {
  static const bool started = [&] {
    auto env = platform::ConfigurableEnvironment::install(
        std::filesystem::temp_directory_path() / "quorvia-bench-wide",
        platform::RunLoop::Clock::kReal);
    env->setLogSink([](std::string_view) {});
    env->setURLTransport(std::make_shared<WideAnswerTransport>(fetchAnswer));
    setObserver({.pollPresented = [](const PollEvent&) { presented = true; }});
    QuorviaSDK::initWithAppToken("wide-app-token", std::nullopt, /*swizzling=*/true);
    return true;
  }();
  (void)started;
}

// A 4.4 MB fetch answer: the first poll and an unused object of 250,000 keys.
void BM_LongestMainThreadHoldOfWideFetchAnswer(benchmark::State& state) {
  const std::string answer =
      wideObject(250'000, R"("results":[{"id":1,"question":"Wide?","options":[{"text":"Yes"}]}],)");
  for (auto _ : state) {
    presented = false;
    startSdk(answer);
    state.counters["longest_ms"] = longestTurnUntil([] { return presented; });
  }
  state.counters["bytes"] = static_cast<double>(answer.size());
}
BENCHMARK(BM_LongestMainThreadHoldOfWideFetchAnswer)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// A 3.5 MB push: a poll and an unused object of 200,000 keys, decoded where it arrived (as the
// push client does on its thread) and delivered on the main queue.
void BM_LongestMainThreadHoldOfWidePush(benchmark::State& state) {
  const std::string payload = wideObject(
      200'000, R"("aps":{"alert":"Wide?"},"poll":{"id":2,"question":"Wide?","options":[]},)");
  startSdk("{}");
  for (auto _ : state) {
    bool delivered = false;
    std::thread([&payload, &delivered] {
      auto value = platform::parseJson(payload);
      platform::dispatch_async([value = std::move(*value), &delivered]() mutable {
        platform::deliverRemoteNotification(std::move(value));
        delivered = true;
      });
    }).join();
    state.counters["longest_ms"] = longestTurnUntil([&] { return delivered; });
  }
  state.counters["bytes"] = static_cast<double>(payload.size());
}
BENCHMARK(BM_LongestMainThreadHoldOfWidePush)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
