#include "sdk/Events.h"

namespace quorvia {

void setObserver(Observer observer) { sdk::Events::shared().setObserver(std::move(observer)); }

namespace sdk {

Events& Events::shared() {
  static auto* events = new Events;
  return *events;
}

std::optional<std::string> eventText(const platform::Value* value) {
  if (!value || value->is_null()) return std::nullopt;
  if (value->is_string()) return value->get<std::string>();
  return platform::describe(*value);
}

}  // namespace sdk
}  // namespace quorvia
