#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace quorvia::devserver {

// Hands what happens in the store (a reply, a new or deleted poll, a device) to the dashboard's
// event streams. Readers keep a cursor instead of a queue each, and only the latest events are
// kept, so a stalled reader costs nothing; one that fell behind is told to reload everything.
// Thread-safe.
class EventHub final {
 public:
  // `event` is one line of JSON; it goes to every reader waiting now or later.
  void publish(const std::string& event);

  // The cursor a new reader starts at: only events published after this call reach it.
  uint64_t cursor();

  // Waits until there are events after `cursor`, `timeout` passes, or close(); returns them
  // oldest first and moves `cursor` past them. A reader that missed events gets one
  // {"type": "resync"} in their place.
  std::vector<std::string> wait(uint64_t& cursor, std::chrono::milliseconds timeout);

  // Wakes every reader for good; wait() returns at once from then on.
  void close();
  bool closed();

 private:
  static constexpr size_t kKept = 256;

  std::mutex mutex_;
  std::condition_variable published_;
  std::deque<std::string> recent_;  // events next_ - recent_.size() .. next_ - 1
  uint64_t next_ = 0;
  bool closed_ = false;
};

}  // namespace quorvia::devserver
