#pragma once

#include <deque>
#include <istream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace quorvia::sim {

// Reads command lines on a thread of its own so that the main run loop keeps running (network
// completions, animations, delayed tasks) while the simulator waits for its next command.
class LineFeed final {
 public:
  // Starts reading `input`, which must stay valid for the rest of the process: the reading
  // thread is detached, since a read from a terminal cannot be interrupted.
  explicit LineFeed(std::shared_ptr<std::istream> input);
  LineFeed(const LineFeed&) = delete;
  LineFeed& operator=(const LineFeed&) = delete;

  // Runs the main run loop until the next line is available and returns it; nullopt at the
  // end of the input. Main thread.
  std::optional<std::string> next();

 private:
  struct Shared {
    std::mutex mutex;
    std::deque<std::string> lines;
    bool ended = false;
  };
  std::shared_ptr<Shared> shared_;
};

}  // namespace quorvia::sim
