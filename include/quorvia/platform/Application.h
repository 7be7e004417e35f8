#pragma once
/// \file
/// The application object (UIApplication). A host sets its application
/// delegate here (ApplicationDelegate.h), reports its window's focus
/// (setActive; HostWindow does it for a host that embeds the banner), and may
/// decide how URLs are opened.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "quorvia/export.h"
#include "quorvia/platform/ApplicationDelegate.h"
#include "quorvia/platform/NotificationSettings.h"
#include "quorvia/platform/RunLoop.h"

namespace quorvia::platform {

class Window;  // the key window; defined by the view layer
class Object;  // the delegate as the platform's object runtime sees it

using BackgroundTaskIdentifier = std::uint64_t;
/// The identifier that names no background task.
inline constexpr BackgroundTaskIdentifier UIBackgroundTaskInvalid = 0;

/// Process-wide application object. Every member is thread-safe; callbacks
/// (expiry handlers, observers) are called without the internal lock held.
class QUORVIA_EXPORT Application final {
 public:
  /// The one application object of the process (sharedApplication).
  static Application& sharedApplication();

  Application();
  ~Application();
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  // Remote notifications.
  /// Asks for a push token; the request is counted. The token comes back
  /// through the application delegate, which the host or simulator drives.
  void registerForRemoteNotifications();

  // Notification settings.
  NotificationSettings currentUserNotificationSettings() const;
  /// Host/test side: the settings the user has granted so far.
  void setCurrentUserNotificationSettings(NotificationSettings settings);
  /// Whether this platform offers registerUserNotificationSettings: (default true).
  bool respondsToRegisterUserNotificationSettings() const;
  void setRespondsToRegisterUserNotificationSettings(bool responds);
  /// Records the settings; the platform then asks the user. Current settings
  /// are not changed here: the host reports the user's answer.
  void registerUserNotificationSettings(NotificationSettings settings);
  std::vector<NotificationSettings> registeredUserNotificationSettings() const;

  // Background tasks.
  /// Begins a named task and returns its identifier (never UIBackgroundTaskInvalid).
  BackgroundTaskIdentifier beginBackgroundTaskWithName(std::string name, Task expirationHandler);
  /// Ends a task; ending an unknown or already ended task is ignored.
  void endBackgroundTask(BackgroundTaskIdentifier identifier);

  // Opening URLs.
  /// Whether some handler can open `url`. Default: URLs whose scheme is http,
  /// https, mailto or tel; the host may decide instead.
  bool canOpenURL(const std::string& url) const;
  void setCanOpenURLHandler(std::function<bool(const std::string& url)> handler);
  /// Hands the URL to the host's opener (default: none, the URL is only recorded).
  void openURL(const std::string& url);
  void setOpenURLHandler(std::function<void(const std::string& url)> handler);

  // Activity.
  /// Whether the app is in front of the user: its window has the focus. A
  /// desktop app starts inactive, since no window has the focus before the
  /// host reports it. Notifications of pushes show on the desktop only while
  /// the app is inactive.
  bool isActive() const;
  /// Host side: the app's window gained (true) or lost (false) the focus.
  /// When that changes the state, posts UIApplicationDidBecomeActiveNotification
  /// or UIApplicationWillResignActiveNotification through the default
  /// notification centre on the calling thread; reporting the same state
  /// again posts nothing. Call it on the main thread, as the platform does:
  /// the observers (the SDK fetches polls on becoming active) run on it.
  void setActive(bool active);

  // Windows and the delegate.
  std::shared_ptr<Window> keyWindow() const;
  void setKeyWindow(std::shared_ptr<Window> window);
  /// Makes `delegate`'s callbacks those of the application delegate. Set it
  /// before the SDK starts: interception takes the delegate of that moment,
  /// and one set later is not intercepted. Until a host sets one, the
  /// application's delegate implements none of the callbacks. Main thread.
  void setDelegate(ApplicationDelegate delegate);

 private:
  // The delegate as an object of the platform's runtime, which the SDK's
  // interception changes; internal (platform/ApplicationDelegateRuntime.h).
  friend std::shared_ptr<Object> delegateObject(const Application& app);
  friend void setDelegateObject(Application& app, std::shared_ptr<Object> delegate);
  friend class ApplicationRecords;  // what the simulator observes; not part of a host's API
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace quorvia::platform
