#include "quorvia/platform/RunLoop.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "quorvia/platform/Environment.h"

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
  // Readable while the host has something to do; see wakeFileDescriptor().
  // Made when a host first asks for it: a loop driven by run() or runUntil()
  // spends no system call on it per task.
  int wakeFd = -1;           // guarded by mu
  bool wakePending = false;  // guarded by mu: the descriptor is readable

  ~State() {
    if (wakeFd >= 0) ::close(wakeFd);
  }

  // Moves due timers to the ready queue, earliest first. Requires mu.
  void collectDue(Duration now) {
    while (!timers.empty() && timers.front().due <= now) {
      std::pop_heap(timers.begin(), timers.end(), later);
      ready.push_back(std::move(timers.back().task));
      timers.pop_back();
    }
  }

  // Makes the descriptor readable once until the next drain. Requires mu.
  void wakeHost() {
    if (wakePending || wakeFd < 0) return;
    wakePending = true;
    const std::uint64_t one = 1;
    while (::write(wakeFd, &one, sizeof one) < 0 && errno == EINTR) {
    }
  }

  // Requires mu.
  void clearWake() {
    if (!wakePending) return;
    wakePending = false;
    std::uint64_t count = 0;
    while (::read(wakeFd, &count, sizeof count) < 0 && errno == EINTR) {
    }
  }
};

RunLoop::RunLoop(Clock clock) : clock_(clock), state_(std::make_unique<State>()) {}
RunLoop::~RunLoop() = default;

void RunLoop::post(Task task) {
  {
    std::lock_guard lock(state_->mu);
    state_->ready.push_back(std::move(task));
    state_->wakeHost();
  }
  state_->cv.notify_all();
}

void RunLoop::postAfter(Duration delay, Task task) {
  {
    std::lock_guard lock(state_->mu);
    const Duration due = now() + std::max(delay, Duration::zero());
    // Only a new earliest timer changes how long a waiting host may sleep.
    if (state_->timers.empty() || due < state_->timers.front().due) state_->wakeHost();
    state_->timers.push_back(Timed{due, state_->seq++, std::move(task)});
    std::push_heap(state_->timers.begin(), state_->timers.end(), later);
  }
  state_->cv.notify_all();
}

Duration RunLoop::now() const {
  if (clock_ == Clock::kVirtual) return Duration(state_->virtualNow.load());
  return std::chrono::duration_cast<Duration>(std::chrono::steady_clock::now() - state_->epoch);
}

bool RunLoop::isMainThread() const {
  return state_->mainThread.load() == std::this_thread::get_id();
}

std::size_t RunLoop::drainOnce() {
  state_->mainThread.store(std::this_thread::get_id());
  std::size_t ran = 0;
  {
    std::lock_guard lock(state_->mu);
    state_->clearWake();
  }
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
    if (state_->timers.empty()) {
      state_->cv.wait(lock, [&] {
        return !state_->ready.empty() || state_->stopRequested || !state_->timers.empty();
      });
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
    state_->cv.wait_until(lock, wake, [&] { return !state_->ready.empty(); });
  }
}

void RunLoop::stop() {
  {
    std::lock_guard lock(state_->mu);
    state_->stopRequested = true;
    state_->wakeHost();
  }
  state_->cv.notify_all();
}

std::size_t RunLoop::pendingTasks() const {
  std::lock_guard lock(state_->mu);
  return state_->ready.size() + state_->timers.size();
}

int RunLoop::wakeFileDescriptor() const {
  std::lock_guard lock(state_->mu);
  if (state_->wakeFd < 0) {
    state_->wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    // Work posted before the host asked is work it must see.
    if (!state_->ready.empty() || !state_->timers.empty() || state_->stopRequested) {
      state_->wakeHost();
    }
  }
  return state_->wakeFd;
}

std::optional<Duration> RunLoop::timeUntilNextTimer() const {
  std::lock_guard lock(state_->mu);
  if (!state_->ready.empty()) return Duration::zero();
  if (state_->timers.empty()) return std::nullopt;
  return std::max(state_->timers.front().due - now(), Duration::zero());
}

RunLoop& mainRunLoop() { return environment().mainRunLoop(); }

void dispatch_async(Task task) { mainRunLoop().post(std::move(task)); }

void dispatch_after(Duration delay, Task task) { mainRunLoop().postAfter(delay, std::move(task)); }

}  // namespace quorvia::platform
