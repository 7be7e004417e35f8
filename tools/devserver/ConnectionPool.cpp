#include "ConnectionPool.h"

namespace quorvia::devserver {

namespace {
thread_local bool shedding = false;
}  // namespace

ConnectionPool::ConnectionPool(size_t capacity) : capacity_(capacity) {
  shedder_ = std::thread([this] { work(true); });
}

ConnectionPool::~ConnectionPool() { shutdown(); }

bool ConnectionPool::isShedding() { return shedding; }

void ConnectionPool::enqueue(std::function<void()> fn) {
  std::lock_guard lock(mutex_);
  if (live_ >= capacity_) {
    shed_.push_back(std::move(fn));
    shedReady_.notify_one();
    return;
  }
  ++live_;
  jobs_.push_back(std::move(fn));
  // Idle workers that were woken but have not taken their job yet still count as idle, so a
  // queue longer than the idle count needs a new worker.
  if (jobs_.size() > idle_ && workers_.size() < capacity_) {
    workers_.emplace_back([this] { work(false); });
  }
  ready_.notify_one();
}

void ConnectionPool::shutdown() {
  {
    std::lock_guard lock(mutex_);
    if (stopping_ && workers_.empty() && !shedder_.joinable()) return;
    stopping_ = true;
  }
  ready_.notify_all();
  shedReady_.notify_all();
  // Only this thread touches the thread list once stopping_ is set.
  for (std::thread& worker : workers_) worker.join();
  if (shedder_.joinable()) shedder_.join();
  std::lock_guard lock(mutex_);
  workers_.clear();
}

void ConnectionPool::work(bool shedder) {
  shedding = shedder;
  std::unique_lock lock(mutex_);
  std::deque<std::function<void()>>& queue = shedder ? shed_ : jobs_;
  std::condition_variable& ready = shedder ? shedReady_ : ready_;
  for (;;) {
    if (!shedder) ++idle_;
    ready.wait(lock, [&] { return !queue.empty() || stopping_; });
    if (!shedder) --idle_;
    if (queue.empty()) return;  // stopping, and nothing left to close
    std::function<void()> job = std::move(queue.front());
    queue.pop_front();
    lock.unlock();
    job();
    job = nullptr;
    lock.lock();
    if (!shedder) --live_;
  }
}

}  // namespace quorvia::devserver
