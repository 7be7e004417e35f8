// Memory after a flood of pushes: 100,000 poll pushes published to a loopback
// mosquitto reach a started SDK through the MQTT push service, the SDK's
// interception and a host delegate, as on a desktop host. Resident memory and
// heap in use are taken after a warm-up round and again after the flood, once
// every push was delivered (well inside the 30 s a push's completion may
// take). Target: resident growth under 4 MB, heap growth under 1 MB.

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <stdlib.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>

#include "platform/ConfigurableEnvironment.h"
#include "platform/KeychainStore.h"
#include "platform/URLSession.h"
#include "push/Publisher.h"
#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/Application.h"
#include "quorvia/platform/ApplicationDelegate.h"
#include "quorvia/platform/PushService.h"
#include "quorvia/platform/RunLoop.h"
#include "support/MosquittoBroker.h"

namespace {

namespace platform = quorvia::platform;
using quorvia::bench::Publisher;
using quorvia::testing::MosquittoBroker;

constexpr std::size_t kWarmUpPushes = 2'000;
constexpr std::size_t kFloodPushes = 100'000;
// Pushes published ahead of the app: within what the broker queues for one
// client, so that none is dropped on the way.
constexpr std::size_t kInFlight = 500;
constexpr auto kBound = std::chrono::seconds(30);

// A field of /proc/self/status in kB, or -1.
double statusKb(const std::string& field) {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(field + ":", 0) == 0) return std::stod(line.substr(field.size() + 1));
  }
  return -1;
}

// Heap in use, in kB, after handing free memory back to the system.
double heapKb() {
  ::malloc_trim(0);
  return static_cast<double>(::mallinfo2().uordblks) / 1024.0;
}

// The start-up fetch finds nothing; no other request is made.
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

// The MQTT service, counting the payloads it hands to the platform.
class CountingPushService final : public platform::PushService {
 public:
  explicit CountingPushService(std::shared_ptr<platform::PushService> service)
      : service_(std::move(service)) {}
  void registerForRemoteNotifications(Handlers handlers) override {
    handlers.didReceive = [this,
                           deliver = std::move(handlers.didReceive)](platform::Value payload) {
      ++received_;
      deliver(std::move(payload));
    };
    service_->registerForRemoteNotifications(std::move(handlers));
  }
  std::size_t received() const { return received_; }  // main queue

 private:
  std::shared_ptr<platform::PushService> service_;
  std::size_t received_ = 0;
};

std::string pollPayload(std::size_t id) {
  return R"({"aps":{"alert":"Coffee or tea?","category":"A.B"},"poll":{"id":)" +
         std::to_string(id) +
         R"(,"question":"Coffee or tea?","options":[{"text":"A"},{"text":"B"}]}})";
}

void BM_MemoryAfterPushFlood(benchmark::State& state) {
  std::string pattern = (std::filesystem::temp_directory_path() / "quorvia-flood-bench-XXXXXX");
  if (!::mkdtemp(pattern.data())) return state.SkipWithError("no temporary directory");
  const std::filesystem::path directory = pattern;
  for (auto _ : state) {
    MosquittoBroker broker(directory / "broker");
    std::string error;
    if (!broker.start(MosquittoBroker::freePort(), &error))
      return state.SkipWithError(error.c_str());
    auto env = platform::ConfigurableEnvironment::install(directory / "data",
                                                          platform::RunLoop::Clock::kReal);
    platform::RunLoop& loop = env->mainRunLoop();
    env->setLogSink([](std::string_view) {});
    env->setKeychainStore(platform::makeInMemoryKeychainStore());
    env->setURLTransport(std::make_shared<EmptyFetchTransport>());
    auto service = std::make_shared<CountingPushService>(
        platform::makeMqttPushService({broker.url(), directory / "data"}));
    env->setPushService(service);

    // A host with the plain push callback: the SDK adds the fetch form.
    std::optional<platform::Bytes> token;
    platform::ApplicationDelegate delegate;
    delegate.didRegisterForRemoteNotifications = [&](const platform::Bytes& t) { token = t; };
    delegate.didReceiveRemoteNotification = [](const std::optional<platform::Value>&) {};
    platform::Application::sharedApplication().setDelegate(std::move(delegate));
    quorvia::QuorviaSDK::initWithAppToken("bench-app-token", std::nullopt);
    if (!loop.runUntil([&] { return token.has_value(); }, kBound)) {
      return state.SkipWithError("no device token");
    }
    Publisher publisher(broker.port());
    const std::string topic = quorvia::testing::deviceTopic(*token);

    std::size_t published = 0;
    auto flood = [&](std::size_t count) {
      const std::size_t end = published + count;
      while (published < end) {
        const std::size_t ahead = published - service->received();
        if (ahead >= kInFlight) {
          const std::size_t wanted = published - kInFlight / 2;
          if (!loop.runUntil([&] { return service->received() >= wanted; }, kBound)) return false;
          continue;
        }
        if (!publisher.publish(topic, pollPayload(published))) return false;
        ++published;
      }
      return loop.runUntil([&] { return service->received() >= end; }, kBound);
    };

    if (!flood(kWarmUpPushes)) return state.SkipWithError("the warm-up pushes did not arrive");
    loop.drainOnce();
    const double rssBefore = statusKb("VmRSS");
    const double heapBefore = heapKb();
    if (!flood(kFloodPushes)) return state.SkipWithError("the flood did not arrive");
    loop.drainOnce();
    state.counters["pushes"] = static_cast<double>(kFloodPushes);
    state.counters["rss_before_kb"] = rssBefore;
    state.counters["rss_after_kb"] = statusKb("VmRSS");
    state.counters["heap_before_kb"] = heapBefore;
    state.counters["heap_after_kb"] = heapKb();
    std::printf("after %zu pushes: resident %.0f -> %.0f kB, heap in use %.0f -> %.0f kB\n",
                kFloodPushes, rssBefore, state.counters["rss_after_kb"].value, heapBefore,
                state.counters["heap_after_kb"].value);
    env->setPushService(nullptr);
    service.reset();
    loop.drainOnce();
  }
  std::filesystem::remove_all(directory);
}
BENCHMARK(BM_MemoryAfterPushFlood)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
