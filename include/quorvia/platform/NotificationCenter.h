#pragma once
/// \file
/// In-process notification centre (NSNotificationCenter defaultCenter). A host
/// posts UIApplicationDidBecomeActiveNotification when its window gains focus
/// (the SDK then fetches polls) and the resign/background/terminate
/// notifications as its window loses focus or the program ends.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "quorvia/export.h"

namespace quorvia::platform {

inline constexpr const char* UIApplicationDidBecomeActiveNotification =
    "UIApplicationDidBecomeActiveNotification";
inline constexpr const char* UIApplicationWillResignActiveNotification =
    "UIApplicationWillResignActiveNotification";
inline constexpr const char* UIApplicationDidEnterBackgroundNotification =
    "UIApplicationDidEnterBackgroundNotification";
inline constexpr const char* UIApplicationWillTerminateNotification =
    "UIApplicationWillTerminateNotification";

/// Observers are called on the posting thread, in registration order.
/// Thread-safe: observers may be added and notifications posted from any
/// thread; an observer added while a post runs is not called by that post.
class QUORVIA_EXPORT NotificationCenter final {
 public:
  using Observer = std::function<void(std::string_view name)>;
  using Token = std::uint64_t;

  static NotificationCenter& defaultCenter();

  NotificationCenter();
  ~NotificationCenter();
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

  /// Registers `observer` for notifications named `name`.
  Token addObserver(std::string name, Observer observer);
  void removeObserver(Token token);
  /// Calls every observer of `name` synchronously.
  void postNotificationName(std::string_view name);
  /// Number of observers registered for `name`.
  std::size_t observerCount(std::string_view name) const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace quorvia::platform
