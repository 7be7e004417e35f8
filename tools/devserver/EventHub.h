#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace quorvia::devserver {

// Hands what happens in the store (a reply, a new or deleted poll, a device) to the dashboard's
// event streams. Readers keep a cursor instead of a queue each, and only the latest events are
// kept, so a stalled reader costs nothing; one that fell behind is told to reload everything.
// A reader waits on a descriptor rather than a condition variable, so that it can watch its
// client's connection in the same wait. Thread-safe.
class EventHub final {
 public:
  class Reader;

  EventHub() = default;
  // Every reader must be gone by then.
  ~EventHub() = default;
  EventHub(const EventHub&) = delete;
  EventHub& operator=(const EventHub&) = delete;

  // `event` is one line of JSON; it goes to every reader.
  void publish(const std::string& event);

  // A reader of the events published from now on, or null when no descriptor is left to make
  // one. The hub must outlive it.
  std::unique_ptr<Reader> subscribe();

  // Waits until `reader` has events, `timeout` passes, close(), or the client on the socket
  // `connection` (-1 for none) hangs up; returns the events oldest first and moves the reader
  // past them. A reader that missed events gets one {"type": "resync"} in their place. Sets
  // `*hungUp` when the client is gone. One thread at a time per reader.
  std::vector<std::string> wait(Reader& reader, std::chrono::milliseconds timeout, int connection,
                                bool* hungUp);

  // Wakes every reader for good; wait() returns at once from then on.
  void close();
  bool closed();

 private:
  static constexpr size_t kKept = 256;

  // Writes to every reader's descriptor. Requires mutex_.
  void wakeReadersLocked();

  std::mutex mutex_;
  std::deque<std::string> recent_;  // events next_ - recent_.size() .. next_ - 1; guarded by mutex_
  uint64_t next_ = 0;               // guarded by mutex_
  bool closed_ = false;             // guarded by mutex_
  std::vector<Reader*> readers_;    // guarded by mutex_
};

// One reader's place in the hub. Destroying it unsubscribes.
class EventHub::Reader final {
 public:
  ~Reader();
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

 private:
  friend class EventHub;
  Reader(EventHub& hub, int wake, uint64_t cursor) : hub_(hub), wake_(wake), cursor_(cursor) {}

  EventHub& hub_;
  const int wake_;   // an eventfd that publish() and close() count up
  uint64_t cursor_;  // guarded by hub_.mutex_
};

}  // namespace quorvia::devserver
