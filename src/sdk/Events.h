#pragma once
// Internal: delivers the SDK's typed events to the host's observer, on the
// main queue, only for the events the host asked for.

#include <optional>
#include <string>
#include <utility>

#include "quorvia/Observer.h"
#include "quorvia/platform/RunLoop.h"
#include "quorvia/platform/Value.h"

namespace quorvia::sdk {

class Events final {
 public:
  /// The process's one event hub (never destroyed).
  static Events& shared();

  /// Main thread.
  void setObserver(Observer observer) { observer_ = std::move(observer); }

  /// Posts `event` to the observer's `member`, when the host set it. A task
  /// of its own, so the observer runs after the step it hears about and may
  /// call the SDK.
  template <typename Event>
  void emit(std::function<void(const Event&)> Observer::*member, Event event) {
    if (!(observer_.*member)) return;
    platform::dispatch_async([this, member, event = std::move(event)] {
      // Read again: the host may have changed its observer meanwhile.
      if (const auto& callback = observer_.*member) callback(event);
    });
  }

 private:
  Observer observer_;
};

/// A poll id or question as an event carries it: text as it is, a number by
/// its digits, nil (or null) as nil.
std::optional<std::string> eventText(const platform::Value* value);
inline std::optional<std::string> eventText(const std::optional<platform::Value>& value) {
  return eventText(value ? &*value : nullptr);
}

}  // namespace quorvia::sdk
