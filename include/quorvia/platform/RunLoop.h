#pragma once
/// \file
/// The main queue. Every platform callback, network completion, animation
/// completion and delayed task of the SDK runs on it, on the one thread that
/// drives the loop (the "main thread"). A host either calls run() on
/// mainRunLoop(), or plugs the loop into its own event loop: wait until
/// wakeFileDescriptor() is readable or timeUntilNextTimer() has passed, then
/// call drainOnce().

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>

#include "quorvia/export.h"

namespace quorvia::platform {

using Task = std::function<void()>;
using Duration = std::chrono::nanoseconds;

/// Seconds as a Duration (0.3 -> 300 ms).
QUORVIA_EXPORT Duration seconds(double s);

/// A main-queue run loop on a monotonic clock that is either real
/// (std::chrono::steady_clock) or virtual (moved only by runFor/advance, so
/// tests see a 0.3 s animation finish without sleeping).
///
/// post/postAfter/stop are safe from any thread and never run the task
/// synchronously. The run methods must be called from one thread at a time;
/// that thread is the main thread while it runs them.
class QUORVIA_EXPORT RunLoop final {
 public:
  enum class Clock { kReal, kVirtual };

  explicit RunLoop(Clock clock);
  ~RunLoop();
  RunLoop(const RunLoop&) = delete;
  RunLoop& operator=(const RunLoop&) = delete;

  /// Queues a task to run as soon as the loop runs (dispatch_async).
  void post(Task task);
  /// Queues a task to run `delay` after now on this loop's clock (dispatch_after).
  void postAfter(Duration delay, Task task);

  /// Time on this loop's monotonic clock since the loop was made.
  Duration now() const;
  bool isVirtual() const { return clock_ == Clock::kVirtual; }
  /// True on the thread that is running (or last ran) the loop.
  bool isMainThread() const;

  /// Runs tasks until stop() is called.
  void run();
  /// Runs tasks for `duration` of this loop's clock. On the real clock this
  /// waits; on the virtual clock it moves time forward, running each delayed
  /// task at its due time, and returns at once.
  void runFor(Duration duration);
  /// Virtual-clock name for runFor.
  void advance(Duration duration) { runFor(duration); }
  /// Runs every task that is due now, including tasks those tasks post for
  /// now, without waiting or moving the clock. Returns how many ran.
  std::size_t drainOnce();
  /// Runs due tasks and waits (in real time, on the queue's condition
  /// variable) for tasks posted from other threads, until `done` is true or
  /// `realTimeout` has passed. The virtual clock does not move. Returns done().
  bool runUntil(const std::function<bool()>& done, Duration realTimeout);
  /// Makes run() return after the task in progress.
  void stop();
  /// Number of queued tasks, immediate and delayed.
  std::size_t pendingTasks() const;

  /// A descriptor that becomes readable when a task is posted for now, when a
  /// new earliest timer is set, or when stop() is called: the moments when a
  /// host waiting in poll/epoll (or SDL, or GLib) must call drainOnce() or
  /// ask timeUntilNextTimer() again. drainOnce() makes it unreadable. Owned by
  /// the loop; never close it.
  int wakeFileDescriptor() const;
  /// How long until the earliest delayed task falls due on this loop's clock:
  /// zero when a task is ready now, nullopt when nothing is queued (then wait
  /// for the descriptor alone). Any thread.
  std::optional<Duration> timeUntilNextTimer() const;

 private:
  struct State;
  const Clock clock_;
  std::unique_ptr<State> state_;
};

/// The process's main run loop: the environment's.
QUORVIA_EXPORT RunLoop& mainRunLoop();

/// Posts to the main queue.
QUORVIA_EXPORT void dispatch_async(Task task);
/// Posts to the main queue, `delay` from now.
QUORVIA_EXPORT void dispatch_after(Duration delay, Task task);

}  // namespace quorvia::platform
