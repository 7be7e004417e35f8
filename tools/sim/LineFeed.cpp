#include "LineFeed.h"

#include <chrono>
#include <thread>

#include "quorvia/platform/RunLoop.h"

namespace quorvia::sim {

LineFeed::LineFeed(std::shared_ptr<std::istream> input) : shared_(std::make_shared<Shared>()) {
  std::thread([shared = shared_, input = std::move(input)] {
    for (std::string line; std::getline(*input, line);) {
      {
        std::lock_guard lock(shared->mutex);
        shared->lines.push_back(std::move(line));
      }
      // Wakes the main loop, which is waiting for tasks or for this line.
      quorvia::platform::dispatch_async([] {});
    }
    {
      std::lock_guard lock(shared->mutex);
      shared->ended = true;
    }
    quorvia::platform::dispatch_async([] {});
  }).detach();
}

std::optional<std::string> LineFeed::next() {
  for (;;) {
    bool ready = false;
    platform::mainRunLoop().runUntil(
        [this, &ready] {
          std::lock_guard lock(shared_->mutex);
          ready = !shared_->lines.empty() || shared_->ended;
          return ready;
        },
        std::chrono::hours(1));
    if (!ready) continue;
    std::lock_guard lock(shared_->mutex);
    if (shared_->lines.empty()) return std::nullopt;
    std::string line = std::move(shared_->lines.front());
    shared_->lines.pop_front();
    return line;
  }
}

}  // namespace quorvia::sim
