#include "quorvia/platform/RunLoop.h"

#include "platform/Cpu.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace quorvia::platform {
namespace {

// A task that keeps posting work for "now" would otherwise hold a drain forever.
constexpr std::size_t kMaxTasksPerDrain = 1'000'000;

struct Timed {
  Duration due;
  std::uint64_t seq;
  Task task;
};

bool later(const Timed& a, const Timed& b) {
  return a.due != b.due ? a.due > b.due : a.seq > b.seq;
}

}  // namespace

Duration seconds(double s) {
  return std::chrono::duration_cast<Duration>(std::chrono::duration<double>(s));
}

struct RunLoop::State {
  mutable std::mutex mu;
  std::condition_variable cv;
  std::deque<Task> ready;
  std::vector<Timed> timers;  // min-heap on (due, seq)
  std::uint64_t seq = 0;
  bool stopRequested = false;
  std::atomic<std::int64_t> virtualNow{0};
  const std::chrono::steady_clock::time_point epoch = std::chrono::steady_clock::now();
  std::atomic<std::thread::id> mainThread{std::this_thread::get_id()};
  // Bumped by everything that would wake a sleeping loop, so that a loop
  // polling for an expected post sees one without taking the lock.
  std::atomic<std::uint64_t> wakeups{0};
  // The steady-clock moment until which another thread has said it expects
  // to post soon (nanoseconds since the clock's epoch).
  std::atomic<std::int64_t> expectedPostUntil{0};

  // Moves due timers to the ready queue, earliest first. Requires mu.
  void collectDue(Duration now) {
    while (!timers.empty() && timers.front().due <= now) {
      std::pop_heap(timers.begin(), timers.end(), later);
      ready.push_back(std::move(timers.back().task));
      timers.pop_back();
    }
  }

  // Called with `lock` held when the loop has nothing to run. While another
  // thread expects to post soon, and not past `limit`, yields the CPU instead
  // of sleeping: on loopback or a LAN the post comes within tens of
  // microseconds, and a sleep and wake-up would cost as much again. Returns
  // true if it polled; the caller then looks at the queue afresh.
  bool pollForExpectedPost(std::unique_lock<std::mutex>& lock,
                           std::chrono::steady_clock::time_point limit) {
    const auto expected = std::chrono::steady_clock::time_point(
        std::chrono::steady_clock::duration(expectedPostUntil.load(std::memory_order_relaxed)));
    const auto until = std::min(limit, expected);
    if (std::chrono::steady_clock::now() >= until) return false;
    const std::uint64_t seen = wakeups.load();
    lock.unlock();
    while (wakeups.load(std::memory_order_relaxed) == seen &&
           std::chrono::steady_clock::now() < until) {
      std::this_thread::yield();
    }
    lock.lock();
    return true;
  }
};

RunLoop::RunLoop(Clock clock) : clock_(clock), state_(std::make_unique<State>()) {}
RunLoop::~RunLoop() = default;

void RunLoop::post(Task task) {
  {
    std::lock_guard lock(state_->mu);
    state_->ready.push_back(std::move(task));
    state_->wakeups.fetch_add(1);
  }
  state_->cv.notify_all();
}

void RunLoop::postAfter(Duration delay, Task task) {
  {
    std::lock_guard lock(state_->mu);
    state_->timers.push_back(Timed{now() + std::max(delay, Duration::zero()), state_->seq++,
                                   std::move(task)});
    std::push_heap(state_->timers.begin(), state_->timers.end(), later);
    state_->wakeups.fetch_add(1);
  }
  state_->cv.notify_all();
}

Duration RunLoop::now() const {
  if (clock_ == Clock::kVirtual) return Duration(state_->virtualNow.load());
  return std::chrono::duration_cast<Duration>(std::chrono::steady_clock::now() - state_->epoch);
}

void RunLoop::expectPostWithin(Duration window) {
  if (clock_ == Clock::kVirtual || !mayRunThreadsInParallel()) return;
  const std::int64_t until =
      (std::chrono::steady_clock::now() + window).time_since_epoch().count();
  std::int64_t current = state_->expectedPostUntil.load(std::memory_order_relaxed);
  while (current < until &&
         !state_->expectedPostUntil.compare_exchange_weak(current, until,
                                                          std::memory_order_relaxed)) {
  }
}

bool RunLoop::isMainThread() const { return state_->mainThread.load() == std::this_thread::get_id(); }

std::size_t RunLoop::drainOnce() {
  state_->mainThread.store(std::this_thread::get_id());
  std::size_t ran = 0;
  while (ran < kMaxTasksPerDrain) {
    Task task;
    {
      std::lock_guard lock(state_->mu);
      state_->collectDue(now());
      if (state_->ready.empty()) break;
      task = std::move(state_->ready.front());
      state_->ready.pop_front();
    }
    if (task) task();
    ++ran;
  }
  return ran;
}

void RunLoop::runFor(Duration duration) {
  const Duration deadline = now() + std::max(duration, Duration::zero());
  if (clock_ == Clock::kVirtual) {
    for (;;) {
      drainOnce();
      std::lock_guard lock(state_->mu);
      if (state_->timers.empty() || state_->timers.front().due > deadline) break;
      state_->virtualNow.store(std::max(state_->timers.front().due, now()).count());
    }
    state_->virtualNow.store(std::max(deadline, now()).count());
    drainOnce();
    return;
  }
  for (;;) {
    drainOnce();
    std::unique_lock lock(state_->mu);
    if (state_->stopRequested) {
      state_->stopRequested = false;
      return;
    }
    const Duration current = now();
    if (current >= deadline) return;
    Duration wake = deadline;
    if (!state_->timers.empty()) wake = std::min(wake, state_->timers.front().due);
    if (state_->ready.empty() &&
        state_->pollForExpectedPost(lock, std::chrono::steady_clock::now() + (wake - current))) {
      continue;
    }
    state_->cv.wait_for(lock, wake - current,
                        [&] { return !state_->ready.empty() || state_->stopRequested; });
  }
}

void RunLoop::run() {
  for (;;) {
    drainOnce();
    std::unique_lock lock(state_->mu);
    if (state_->stopRequested) {
      state_->stopRequested = false;
      return;
    }
    if (!state_->ready.empty()) continue;
    if (clock_ == Clock::kReal) {
      const auto limit = state_->timers.empty()
                             ? std::chrono::steady_clock::time_point::max()
                             : std::chrono::steady_clock::now() + (state_->timers.front().due - now());
      if (state_->pollForExpectedPost(lock, limit)) continue;
    }
    if (state_->timers.empty()) {
      state_->cv.wait(lock, [&] { return !state_->ready.empty() || state_->stopRequested ||
                                         !state_->timers.empty(); });
    } else if (clock_ == Clock::kVirtual) {
      // With nothing else to do, a virtual loop jumps to its next timer.
      state_->virtualNow.store(std::max(state_->timers.front().due, now()).count());
    } else {
      state_->cv.wait_for(lock, state_->timers.front().due - now(),
                          [&] { return !state_->ready.empty() || state_->stopRequested; });
    }
  }
}

bool RunLoop::runUntil(const std::function<bool()>& done, Duration realTimeout) {
  const auto deadline = std::chrono::steady_clock::now() + realTimeout;
  for (;;) {
    drainOnce();
    if (done()) return true;
    std::unique_lock lock(state_->mu);
    const auto realNow = std::chrono::steady_clock::now();
    if (realNow >= deadline) return false;
    auto wake = deadline;
    if (clock_ == Clock::kReal && !state_->timers.empty()) {
      wake = std::min(wake, realNow + (state_->timers.front().due - now()));
    }
    if (state_->ready.empty() && state_->pollForExpectedPost(lock, wake)) continue;
    state_->cv.wait_until(lock, wake, [&] { return !state_->ready.empty(); });
  }
}

void RunLoop::stop() {
  {
    std::lock_guard lock(state_->mu);
    state_->stopRequested = true;
    state_->wakeups.fetch_add(1);
  }
  state_->cv.notify_all();
}

std::size_t RunLoop::pendingTasks() const {
  std::lock_guard lock(state_->mu);
  return state_->ready.size() + state_->timers.size();
}

namespace {
std::mutex& mainLoopMutex() {
  static auto* mu = new std::mutex;
  return *mu;
}
std::shared_ptr<RunLoop>& mainLoopSlot() {
  // Never destroyed: completions may still be posted while the process exits.
  static auto* slot = new std::shared_ptr<RunLoop>;
  return *slot;
}
}  // namespace

RunLoop& mainRunLoop() {
  std::lock_guard lock(mainLoopMutex());
  auto& slot = mainLoopSlot();
  if (!slot) slot = std::make_shared<RunLoop>(RunLoop::Clock::kReal);
  return *slot;
}

void setMainRunLoop(std::shared_ptr<RunLoop> loop) {
  std::lock_guard lock(mainLoopMutex());
  // A replaced loop is kept alive: callers may still hold a reference to it.
  static auto* retired = new std::vector<std::shared_ptr<RunLoop>>;
  if (mainLoopSlot()) retired->push_back(std::move(mainLoopSlot()));
  mainLoopSlot() = std::move(loop);
}

void dispatch_async(Task task) { mainRunLoop().post(std::move(task)); }

void dispatch_after(Duration delay, Task task) { mainRunLoop().postAfter(delay, std::move(task)); }

}  // namespace quorvia::platform
