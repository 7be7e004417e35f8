#pragma once
// Completion handlers that the platform hands to the app with a time limit (a
// push's fetch, a notification's action): each one not called in time is
// logged once. One timer on the main queue serves every handler of a kind and
// a handler called in time leaves nothing behind, so that a flood of pushes
// holds no memory once each has been delivered and completed.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "quorvia/platform/RunLoop.h"

namespace quorvia::platform {

class CompletionDeadline final {
 public:
  /// One handler being watched.
  using Ticket = std::uint64_t;

  /// Logs `lateLine` for each handler not finished within `limit` of the main
  /// queue's clock.
  CompletionDeadline(Duration limit, std::string lateLine);
  ~CompletionDeadline();
  CompletionDeadline(const CompletionDeadline&) = delete;
  CompletionDeadline& operator=(const CompletionDeadline&) = delete;

  /// Starts the limit of one handler, from now. Main queue.
  Ticket start();
  /// The handler was called: nothing is logged for it, and nothing of it is
  /// kept. A ticket already finished or already late is ignored. Any thread.
  void finish(Ticket ticket);
  /// Handlers neither finished nor late yet. Any thread.
  std::size_t watching() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace quorvia::platform
