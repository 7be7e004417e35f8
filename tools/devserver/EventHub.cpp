#include "EventHub.h"

namespace quorvia::devserver {

void EventHub::publish(const std::string& event) {
  {
    std::lock_guard lock(mutex_);
    recent_.push_back(event);
    if (recent_.size() > kKept) recent_.pop_front();
    ++next_;
  }
  published_.notify_all();
}

uint64_t EventHub::cursor() {
  std::lock_guard lock(mutex_);
  return next_;
}

std::vector<std::string> EventHub::wait(uint64_t& cursor, std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  published_.wait_for(lock, timeout, [&] { return closed_ || next_ > cursor; });
  std::vector<std::string> events;
  if (closed_ || next_ <= cursor) return events;
  uint64_t oldest = next_ - recent_.size();
  if (cursor < oldest) {
    events.emplace_back(R"({"type":"resync"})");
  } else {
    events.assign(recent_.begin() + static_cast<std::ptrdiff_t>(cursor - oldest), recent_.end());
  }
  cursor = next_;
  return events;
}

void EventHub::close() {
  {
    std::lock_guard lock(mutex_);
    closed_ = true;
  }
  published_.notify_all();
}

bool EventHub::closed() {
  std::lock_guard lock(mutex_);
  return closed_;
}

}  // namespace quorvia::devserver
