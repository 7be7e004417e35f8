#include "platform/push/CompletionDeadline.h"

#include <map>
#include <mutex>
#include <optional>
#include <utility>

#include "platform/Log.h"

namespace quorvia::platform {

struct CompletionDeadline::State : std::enable_shared_from_this<State> {
  State(Duration limit, std::string lateLine) : limit(limit), lateLine(std::move(lateLine)) {}

  const Duration limit;
  const std::string lateLine;

  mutable std::mutex mu;
  // Tickets are handed out in the order of their deadlines, which all lie
  // `limit` after their start on one clock: the first entry is due first.
  std::map<Ticket, Duration> due;  // guarded by mu
  Ticket next = 0;                 // guarded by mu
  RunLoop* loop = nullptr;         // guarded by mu; the main queue the deadlines are on
  bool timerPending = false;       // guarded by mu
  std::uint64_t generation = 0;    // guarded by mu; a timer of an older one is void

  // Requires mu. Leaves the timer to the caller (after unlocking).
  std::optional<std::uint64_t> add(RunLoop& current, Ticket* ticket) {
    if (loop != &current) {
      // Another main queue took over (an environment was installed): the
      // old one's timer never runs, and its clock means nothing here.
      due.clear();
      loop = &current;
      timerPending = false;
      ++generation;
    }
    *ticket = next++;
    due.emplace(*ticket, current.now() + limit);
    if (timerPending) return std::nullopt;
    timerPending = true;
    return generation;
  }

  void arm(RunLoop& on, Duration delay, std::uint64_t armedGeneration) {
    on.postAfter(delay, [self = shared_from_this(), on = &on, armedGeneration] {
      self->expire(*on, armedGeneration);
    });
  }

  // Main queue: logs every handler whose limit is over, then waits for the
  // next one, if any.
  void expire(RunLoop& on, std::uint64_t armedGeneration) {
    std::size_t late = 0;
    std::optional<Duration> wait;
    {
      std::lock_guard lock(mu);
      if (armedGeneration != generation || loop != &on) return;
      const Duration now = on.now();
      while (!due.empty() && due.begin()->second <= now) {
        due.erase(due.begin());
        ++late;
      }
      timerPending = !due.empty();
      if (timerPending) wait = due.begin()->second - now;
    }
    for (std::size_t i = 0; i < late; ++i) debugLog(lateLine);
    if (wait) arm(on, *wait, armedGeneration);
  }
};

CompletionDeadline::CompletionDeadline(Duration limit, std::string lateLine)
    : state_(std::make_shared<State>(limit, std::move(lateLine))) {}

CompletionDeadline::~CompletionDeadline() = default;

CompletionDeadline::Ticket CompletionDeadline::start() {
  RunLoop& loop = mainRunLoop();
  Ticket ticket = 0;
  std::optional<std::uint64_t> armGeneration;
  {
    std::lock_guard lock(state_->mu);
    armGeneration = state_->add(loop, &ticket);
  }
  if (armGeneration) state_->arm(loop, state_->limit, *armGeneration);
  return ticket;
}

void CompletionDeadline::finish(Ticket ticket) {
  std::lock_guard lock(state_->mu);
  state_->due.erase(ticket);
}

std::size_t CompletionDeadline::watching() const {
  std::lock_guard lock(state_->mu);
  return state_->due.size();
}

}  // namespace quorvia::platform
