// One poll pushed to 10,000 registered devices: from the admin call until the broker has
// acknowledged the last message. Target: under 2 s.

#include <benchmark/benchmark.h>
#include <httplib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <thread>

#include "DevServer.h"
#include "support/MosquittoBroker.h"
#include "PollStore.h"
#include "PushSender.h"

namespace {

namespace fs = std::filesystem;
using namespace quorvia::devserver;

constexpr int kDevices = 10'000;
constexpr const char* kAdminToken = "bench-admin-token";

// A devserver with kDevices devices of one app, one poll, and a broker, built once.
struct FanoutSetup {
  fs::path directory;
  std::unique_ptr<quorvia::testing::MosquittoBroker> broker;
  std::unique_ptr<PushSender> sender;
  std::unique_ptr<DevServer> server;
  std::thread serving;
  int port = 0;
  int64_t pollId = 0;

  bool start() {
    directory = fs::temp_directory_path() / ("devserver-bench-" + std::to_string(getpid()));
    fs::create_directories(directory);
    broker = std::make_unique<quorvia::testing::MosquittoBroker>(directory);
    std::string error;
    if (!broker->start(quorvia::testing::MosquittoBroker::freePort(), &error)) return false;
    {
      std::fprintf(stderr, "registering %d devices...\n", kDevices);
      std::unique_ptr<PollStore> store = PollStore::open(directory / "bench.sqlite3", &error);
      if (!store) return false;
      for (int i = 0; i < kDevices; ++i) {
        char token[65];
        std::snprintf(token, sizeof token, "%064x", i);
        if (!store->registerDevice("bench-app", token, "ios")) return false;
      }
      std::optional<PollRecord> poll = store->createPoll(
          "bench-app", "Tea or coffee?", {{"Tea", std::nullopt}, {"Coffee", std::nullopt}});
      if (!poll) return false;
      pollId = poll->id;
    }
    sender = std::make_unique<PushSender>(*BrokerAddress::parse(broker->url()),
                                          std::chrono::seconds(30));
    DevServerOptions options;
    options.database = directory / "bench.sqlite3";
    options.adminToken = kAdminToken;
    options.push = sender.get();
    options.requestLog = [](const std::string&) {};
    server = DevServer::open(std::move(options), &error);
    if (!server) return false;
    port = server->bind("127.0.0.1", 0);
    if (port <= 0) return false;
    serving = std::thread([this] { server->run(); });
    return true;
  }

  ~FanoutSetup() {
    if (server) {
      server->stop();
      serving.join();
    }
    server.reset();
    sender.reset();
    broker.reset();
    fs::remove_all(directory);
  }
};

void BM_PushOnePollToTenThousandDevices(benchmark::State& state) {
  FanoutSetup setup;
  if (!setup.start()) {
    state.SkipWithError("could not start mosquitto or the devserver");
    return;
  }
  httplib::Client client("127.0.0.1", setup.port);
  client.set_read_timeout(60);
  client.set_default_headers({{"X-Quorvia-Admin-Token", kAdminToken}});
  const std::string path = "/admin/polls/" + std::to_string(setup.pollId) + "/push";
  for (auto _ : state) {
    httplib::Result result = client.Post(path, "{}", "application/json");
    if (!result || result->status != 200 ||
        nlohmann::json::parse(result->body, nullptr, false)["sent"] != kDevices) {
      state.SkipWithError(result ? result->body.c_str() : "no answer");
      return;
    }
  }
  state.counters["messages/s"] =
      benchmark::Counter(static_cast<double>(kDevices) * static_cast<double>(state.iterations()),
                         benchmark::Counter::kIsRate);
}
BENCHMARK(BM_PushOnePollToTenThousandDevices)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(5);

}  // namespace

BENCHMARK_MAIN();
