#pragma once
// Fixture of the networking tests: the real transport with a short time-out,
// and a recorder of what a completion was called with, how often and where.

#include <functional>
#include <memory>
#include <optional>

#include "networking/SimpleNetworking.h"
#include "support/LoopbackServer.h"
#include "support/PlatformTest.h"

namespace quorvia::testing {

struct Outcome {
  int calls = 0;
  bool onMainThread = false;
  std::optional<platform::Value> result;
  std::optional<platform::Error> error;
};

/// A width x height grey image as the writer of `format` (png, jpg, tga, bmp) encodes it.
platform::Bytes encodedImage(const std::string& format, int width, int height);

class NetworkingTest : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    env_->setURLTransport(transport_);
  }
  SimpleNetworking::Returned record(const std::shared_ptr<Outcome>& outcome) {
    return [outcome, loop = loop_](auto result, auto error) {
      ++outcome->calls;
      outcome->onMainThread = loop->isMainThread();
      outcome->result = std::move(result);
      outcome->error = std::move(error);
    };
  }
  /// Runs the main queue until `outcome` is called back (at most 20 s), then
  /// once more, so that a second call would be seen.
  bool waitFor(const std::shared_ptr<Outcome>& outcome) {
    const bool called = loop_->runUntil([&] { return outcome->calls > 0; }, platform::seconds(20));
    drain();
    return called;
  }
  /// Starts `call` with a recording completion and waits for it.
  std::shared_ptr<Outcome> completed(const std::function<void(SimpleNetworking::Returned)>& call) {
    auto outcome = std::make_shared<Outcome>();
    call(record(outcome));
    EXPECT_TRUE(waitFor(outcome)) << "never called back";
    return outcome;
  }

  std::shared_ptr<ShortTimeoutTransport> transport_ = std::make_shared<ShortTimeoutTransport>(10);
};

}  // namespace quorvia::testing
