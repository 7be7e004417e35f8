#include "ConnectionPool.h"

#include <utility>

namespace quorvia::devserver {

namespace {
thread_local bool shedding = false;
// The pool whose slot the calling worker's job holds, or null once given back.
thread_local ConnectionPool* heldSlot = nullptr;
}  // namespace

ConnectionPool::ConnectionPool(size_t capacity) : capacity_(capacity) {
  shedder_ = std::thread([this] { work(true); });
}

ConnectionPool::~ConnectionPool() { shutdown(); }

bool ConnectionPool::isShedding() { return shedding; }

void ConnectionPool::releaseSlot() {
  ConnectionPool* pool = std::exchange(heldSlot, nullptr);
  if (pool == nullptr) return;
  std::lock_guard lock(pool->mutex_);
  --pool->live_;
}

void ConnectionPool::enqueue(std::function<void()> fn) {
  std::lock_guard lock(mutex_);
  if (live_ >= capacity_) {
    shed_.push_back(std::move(fn));
    shedReady_.notify_one();
    return;
  }
  admitLocked(std::move(fn));
}

void ConnectionPool::admitLocked(std::function<void()> fn) {
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
    if (shedder && live_ < capacity_ && !stopping_) {
      admitLocked(std::move(job));
      continue;
    }
    if (!shedder) heldSlot = this;
    lock.unlock();
    job();
    job = nullptr;
    releaseSlot();
    lock.lock();
  }
}

}  // namespace quorvia::devserver
