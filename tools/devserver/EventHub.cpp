#include "EventHub.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace quorvia::devserver {

namespace {
using Clock = std::chrono::steady_clock;
}  // namespace

EventHub::Reader::~Reader() {
  {
    std::lock_guard lock(hub_.mutex_);
    std::erase(hub_.readers_, this);
  }
  ::close(wake_);
}

void EventHub::publish(const std::string& event) {
  std::lock_guard lock(mutex_);
  recent_.push_back(event);
  if (recent_.size() > kKept) recent_.pop_front();
  ++next_;
  wakeReadersLocked();
}

std::unique_ptr<EventHub::Reader> EventHub::subscribe() {
  int wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake < 0) return nullptr;
  std::lock_guard lock(mutex_);
  std::unique_ptr<Reader> reader(new Reader(*this, wake, next_));
  readers_.push_back(reader.get());
  return reader;
}

std::vector<std::string> EventHub::wait(Reader& reader, std::chrono::milliseconds timeout,
                                        int connection, bool* hungUp) {
  const auto deadline = Clock::now() + timeout;
  std::vector<std::string> events;
  for (;;) {
    {
      std::lock_guard lock(mutex_);
      if (closed_) return events;
      if (next_ > reader.cursor_) {
        uint64_t oldest = next_ - recent_.size();
        if (reader.cursor_ < oldest) {
          events.emplace_back(R"({"type":"resync"})");
        } else {
          events.assign(recent_.begin() + static_cast<std::ptrdiff_t>(reader.cursor_ - oldest),
                        recent_.end());
        }
        reader.cursor_ = next_;
        return events;
      }
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) return events;
    // POLLRDHUP rather than POLLIN: a client's FIN ends the wait, bytes it sends do not.
    pollfd fds[2] = {{reader.wake_, POLLIN, 0}, {connection, POLLRDHUP, 0}};
    int n = ::poll(fds, 2, static_cast<int>(std::min<int64_t>(left.count(), 60'000)));
    if ((n < 0 && errno != EINTR) || fds[1].revents != 0) {
      if (hungUp != nullptr) *hungUp = true;
      return events;
    }
    // Drained before the next look at the events, so a publish() from now on wakes the next poll.
    if (fds[0].revents != 0) {
      eventfd_t count = 0;
      eventfd_read(reader.wake_, &count);
    }
  }
}

void EventHub::close() {
  std::lock_guard lock(mutex_);
  closed_ = true;
  wakeReadersLocked();
}

bool EventHub::closed() {
  std::lock_guard lock(mutex_);
  return closed_;
}

void EventHub::wakeReadersLocked() {
  for (Reader* reader : readers_) eventfd_write(reader->wake_, 1);
}

}  // namespace quorvia::devserver
