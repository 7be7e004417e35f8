#pragma once
// Shared helpers of the networking tests: a fixture that waits on the main
// queue for completions, and recorders that count how often a completion ran.

#include <memory>
#include <optional>

#include "networking/SimpleNetworking.h"
#include "support/PlatformTest.h"

namespace quorvia::testing {

struct Outcome {
  int calls = 0;
  std::optional<platform::Value> result;
  std::shared_ptr<platform::Image> image;
  std::optional<platform::Error> error;
};

class NetworkingTest : public PlatformTest {
 protected:
  /// Runs the main queue until `outcome` has been called back (or 20 s).
  bool waitFor(const std::shared_ptr<Outcome>& outcome) {
    return loop_->runUntil([&] { return outcome->calls > 0; }, platform::seconds(20));
  }

  static SimpleNetworking::Returned recordJson(const std::shared_ptr<Outcome>& outcome) {
    return [outcome](std::optional<platform::Value> result, std::optional<platform::Error> error) {
      ++outcome->calls;
      outcome->result = std::move(result);
      outcome->error = std::move(error);
    };
  }

  static SimpleNetworking::ImageReturned recordImage(const std::shared_ptr<Outcome>& outcome) {
    return [outcome](std::shared_ptr<platform::Image> image, std::optional<platform::Error> error) {
      ++outcome->calls;
      outcome->image = std::move(image);
      outcome->error = std::move(error);
    };
  }
};

}  // namespace quorvia::testing
