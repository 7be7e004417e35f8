#include "quorvia/platform/NotificationCenter.h"

#include <mutex>
#include <vector>

namespace quorvia::platform {

struct NotificationCenter::State {
  struct Entry {
    Token token;
    std::string name;
    std::shared_ptr<Observer> observer;
  };
  mutable std::mutex mu;
  std::vector<Entry> entries;
  Token next = 1;
};

NotificationCenter& NotificationCenter::defaultCenter() {
  static auto* center = new NotificationCenter;  // lives for the process
  return *center;
}

NotificationCenter::NotificationCenter() : state_(std::make_unique<State>()) {}
NotificationCenter::~NotificationCenter() = default;

NotificationCenter::Token NotificationCenter::addObserver(std::string name, Observer observer) {
  std::lock_guard lock(state_->mu);
  const Token token = state_->next++;
  state_->entries.push_back(
      {token, std::move(name), std::make_shared<Observer>(std::move(observer))});
  return token;
}

void NotificationCenter::removeObserver(Token token) {
  std::lock_guard lock(state_->mu);
  std::erase_if(state_->entries, [&](const State::Entry& e) { return e.token == token; });
}

void NotificationCenter::postNotificationName(std::string_view name) {
  std::vector<std::shared_ptr<Observer>> targets;
  {
    std::lock_guard lock(state_->mu);
    for (const auto& e : state_->entries)
      if (e.name == name) targets.push_back(e.observer);
  }
  for (const auto& observer : targets) (*observer)(name);
}

std::size_t NotificationCenter::observerCount(std::string_view name) const {
  std::lock_guard lock(state_->mu);
  std::size_t n = 0;
  for (const auto& e : state_->entries) n += e.name == name;
  return n;
}

}  // namespace quorvia::platform
