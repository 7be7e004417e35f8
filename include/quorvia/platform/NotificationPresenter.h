#pragma once
/// \file
/// The platform's notification centre: it shows a notification bubble with
/// answer buttons while the app is not in front, and reports which button the
/// user pressed. The desktop's presenter talks to the freedesktop
/// Notifications service on the session bus (the bubbles every Linux desktop
/// shows); a host or test may install its own through the Environment.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "quorvia/export.h"
#include "quorvia/platform/Value.h"

namespace quorvia::platform {

/// The action identifier a presenter reports when the user clicks the bubble
/// itself rather than one of its buttons.
inline constexpr const char* kNotificationDefaultAction = "default";

/// Shows notifications with buttons and reports the user's choice.
class QUORVIA_EXPORT NotificationPresenter {
 public:
  /// One answer button.
  struct Button {
    /// Reported back when the button is pressed; never "default".
    std::string identifier;
    /// What the button shows.
    std::string title;
  };
  /// One notification.
  struct Notification {
    /// Who the notification is from (the app's name).
    std::string appName;
    /// The message the bubble shows.
    std::string body;
    /// The buttons, in the order they are shown. A click on the bubble itself
    /// is always offered too, as kNotificationDefaultAction.
    std::vector<Button> buttons;
    /// Handed back with the user's choice, untouched.
    Value payload;
  };
  /// Receives the pressed button's identifier (or kNotificationDefaultAction
  /// for the bubble itself) and the notification's payload. Runs on the main
  /// queue, at most once per notification.
  using ActionHandler = std::function<void(std::string identifier, Value payload)>;

  NotificationPresenter() = default;
  NotificationPresenter(const NotificationPresenter&) = delete;
  NotificationPresenter& operator=(const NotificationPresenter&) = delete;
  /// Stops the presenter's work; no handler runs after the main queue has run
  /// what was already posted. The handler is destroyed on the main queue.
  virtual ~NotificationPresenter();

  /// Replaces the handler of every later choice (an empty one drops them).
  /// The presenter keeps the handler and destroys it on the main queue. Any
  /// thread.
  virtual void setActionHandler(ActionHandler handler) = 0;
  /// Shows `notification` until the user acts on it or it is withdrawn:
  /// it does not expire. Any thread; never blocks the caller on the
  /// notification service. A presenter that cannot show notifications (no
  /// service) drops it, after saying so once in the log.
  virtual void present(Notification notification) = 0;
  /// Takes back every notification shown or still to be shown whose payload
  /// `matches` accepts (the app dealt with it another way). `matches` runs on
  /// the presenter's own thread. Any thread. By default nothing is taken back.
  virtual void withdraw(std::function<bool(const Value& payload)> matches);
};

/// The desktop's presenter: the freedesktop Notifications service
/// (org.freedesktop.Notifications) on the session bus of
/// DBUS_SESSION_BUS_ADDRESS, reached through GDBus on a thread of its own.
/// Nothing connects before the first present(). Without a session bus or a
/// notification service on it, the presenter logs one line and shows
/// nothing. Any thread.
QUORVIA_EXPORT std::shared_ptr<NotificationPresenter> makeFreedesktopNotificationPresenter();

}  // namespace quorvia::platform
