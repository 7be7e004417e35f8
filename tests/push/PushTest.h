#pragma once
// Fixture for the push tests: a broker of the test's own, a service on the
// test's data directory, and what its handlers saw on the main queue.

#include <memory>
#include <string>
#include <vector>

#include "support/MosquittoBroker.h"
#include "quorvia/platform/PushService.h"
#include "support/PlatformTest.h"

namespace quorvia::testing {

/// What one set of handlers was given, in order. Main queue only.
struct Seen {
  std::vector<platform::Bytes> tokens;
  std::vector<platform::Error> errors;
  std::vector<platform::Value> payloads;
};

class PushTest : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    broker_ = std::make_unique<MosquittoBroker>(dataDir_ / "broker");
    port_ = MosquittoBroker::freePort();
  }
  void TearDown() override {
    broker_.reset();
    PlatformTest::TearDown();
  }

  [[nodiscard]] bool startBroker() {
    std::string error;
    const bool started = broker_->start(port_, &error);
    if (!started) ADD_FAILURE() << error;
    return started;
  }
  std::string brokerURL() const { return "mqtt://127.0.0.1:" + std::to_string(port_); }
  std::filesystem::path appData() const { return dataDir_ / "data"; }
  std::shared_ptr<platform::PushService> makeService() {
    return platform::makeMqttPushService({brokerURL(), appData()});
  }

  static platform::PushService::Handlers recordInto(const std::shared_ptr<Seen>& seen) {
    return {[seen](platform::Bytes token) { seen->tokens.push_back(std::move(token)); },
            [seen](platform::Error error) { seen->errors.push_back(std::move(error)); },
            [seen](platform::Value payload) { seen->payloads.push_back(std::move(payload)); }};
  }

  /// Runs the main queue until `done` or a generous real-time bound.
  bool waitFor(const std::function<bool()>& done) {
    return loop_->runUntil(done, std::chrono::seconds(30));
  }

  /// Registers `service` and waits for the token.
  platform::Bytes registerAndWait(platform::PushService& service,
                                  const std::shared_ptr<Seen>& seen) {
    service.registerForRemoteNotifications(recordInto(seen));
    EXPECT_TRUE(waitFor([&] { return !seen->tokens.empty(); })) << "no token";
    return seen->tokens.empty() ? platform::Bytes{} : seen->tokens.front();
  }

  std::unique_ptr<MosquittoBroker> broker_;
  int port_ = 0;
};

}  // namespace quorvia::testing
