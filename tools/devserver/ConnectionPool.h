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
// which answers them at once without reading. Workers are started on demand and kept.
class ConnectionPool final : public httplib::TaskQueue {
 public:
  explicit ConnectionPool(size_t capacity);
  ~ConnectionPool() override;
  ConnectionPool(const ConnectionPool&) = delete;
  ConnectionPool& operator=(const ConnectionPool&) = delete;

  void enqueue(std::function<void()> fn) override;
  void shutdown() override;

  // True on the thread that answers connections over the capacity.
  static bool isShedding();

 private:
  void work(bool shedding);

  const size_t capacity_;
  std::mutex mutex_;
  std::condition_variable ready_;
  std::condition_variable shedReady_;
  std::deque<std::function<void()>> jobs_;
  std::deque<std::function<void()>> shed_;
  size_t idle_ = 0;
  size_t live_ = 0;  // queued or running in jobs_
  bool stopping_ = false;
  std::vector<std::thread> workers_;
  std::thread shedder_;
};

}  // namespace quorvia::devserver
