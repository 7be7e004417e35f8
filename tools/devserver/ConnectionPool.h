#pragma once

#include <httplib.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace quorvia::devserver {

// httplib's task queue for accepted connections: one worker per live connection up to
// `capacity`, so a connection is served as soon as it is accepted instead of waiting behind slow
// ones. Connections beyond the capacity are handed to one extra thread with isShedding() true,
// which refuses them at once; one that finds a slot freed by then is served instead. Workers
// are started on demand and kept.
class ConnectionPool final : public httplib::TaskQueue {
 public:
  explicit ConnectionPool(size_t capacity);
  ~ConnectionPool() override;
  ConnectionPool(const ConnectionPool&) = delete;
  ConnectionPool& operator=(const ConnectionPool&) = delete;

  void enqueue(std::function<void()> fn) override;
  void shutdown() override;

  // True on the thread that refuses connections over the capacity.
  static bool isShedding();

  // Gives the calling worker's slot back before its job ends: a connection that is about to be
  // closed no longer counts, so a client that saw it close finds the slot free. No-op off the
  // workers and when called again.
  static void releaseSlot();

 private:
  void work(bool shedding);
  // Counts `fn` as live and queues it for a worker. Requires mutex_.
  void admitLocked(std::function<void()> fn);

  const size_t capacity_;
  std::mutex mutex_;
  std::condition_variable ready_;
  std::condition_variable shedReady_;
  std::deque<std::function<void()>> jobs_;  // guarded by mutex_
  std::deque<std::function<void()>> shed_;  // guarded by mutex_
  size_t idle_ = 0;                         // guarded by mutex_
  size_t live_ = 0;        // queued in jobs_ or running without releaseSlot(); guarded by mutex_
  bool stopping_ = false;  // guarded by mutex_
  std::vector<std::thread> workers_;
  std::thread shedder_;
};

}  // namespace quorvia::devserver
