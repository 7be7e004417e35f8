#pragma once
// Internal: counts calls of the operations whose bodies are still placeholders
// (interception, fetching, the banner), so that start-up can be checked to
// reach them in the right cases before they are built.

#include <atomic>

namespace quorvia::detail {

struct CallTrace {
  std::atomic<int> swizzle{0};
  std::atomic<int> fetchPolls{0};
  std::atomic<int> presentPoll{0};
  std::atomic<int> showOptions{0};
};

CallTrace& callTrace();

}  // namespace quorvia::detail
