#pragma once
// Internal: the SDK's application on the AT-SPI accessibility bus as its
// objects: the application, the banner (an alert) and its elements. It
// answers what a screen reader asks, from the tree as it is at that moment,
// and tells the bus what changed. Main thread; the bus's own thread hands it
// the questions (AtspiAccessibilityBus.cpp).

#include <gio/gio.h>

#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/AccessibilityBus.h"

namespace quorvia::platform::atspi {

// Where AT-SPI looks for an application's objects, and the interfaces they implement.
inline constexpr const char* kSubtreePath = "/org/a11y/atspi/accessible";
inline constexpr const char* kRootNode = "root";
inline constexpr const char* kRootPath = "/org/a11y/atspi/accessible/root";
inline constexpr const char* kCachePath = "/org/a11y/atspi/cache";
inline constexpr const char* kAccessible = "org.a11y.atspi.Accessible";
inline constexpr const char* kApplication = "org.a11y.atspi.Application";
inline constexpr const char* kComponent = "org.a11y.atspi.Component";
inline constexpr const char* kAction = "org.a11y.atspi.Action";
inline constexpr const char* kCache = "org.a11y.atspi.Cache";
inline constexpr const char* kFailed = "org.freedesktop.DBus.Error.Failed";

/// The part of an AT-SPI interface the SDK's objects implement; GDBus checks
/// every call and every answer against it. Any thread.
GDBusInterfaceInfo* interfaceInfo(const char* name);

/// `text` as valid UTF-8 without NULs, which a D-Bus string must be.
std::string busString(std::string_view text);

/// One question from the bus, answered on the main queue. Whatever happens
// to the task, the caller gets an answer: a call dropped unanswered would
// leave the screen reader waiting for its timeout.
struct Call {
  std::string path;
  std::string interface;
  std::string member;
  GVariant* parameters = nullptr;
  GDBusMethodInvocation* invocation = nullptr;
  std::shared_ptr<std::atomic<int>> pending;

  Call() = default;
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;
  ~Call() {
    if (invocation) fail(kFailed, "The application went away");
    if (parameters) g_variant_unref(parameters);
  }
  void reply(GVariant* value) {
    g_dbus_method_invocation_return_value(std::exchange(invocation, nullptr), value);
    --*pending;
  }
  void fail(const char* name, const std::string& message) {
    g_dbus_method_invocation_return_dbus_error(std::exchange(invocation, nullptr), name,
                                               message.c_str());
    --*pending;
  }
};

/// The application's objects. Main thread.
class Application {
 public:
  /// An application named `name` (the app's identifier).
  static std::unique_ptr<Application> make(std::string name);
  virtual ~Application() = default;

  /// The tree it publishes, held weakly.
  virtual void setTree(std::weak_ptr<AccessibilityBus::Tree> tree) = 0;
  /// It joined the bus as `uniqueName` on `connection` (a reference is
  /// taken), below the registry's desktop: from now on the bus hears of every
  /// change, starting with what is shown already.
  virtual void joined(GDBusConnection* connection, std::string uniqueName, std::string desktopName,
                      std::string desktopPath) = 0;
  /// It left the bus: nothing more is told.
  virtual void left() = 0;
  /// The tree's elements are now `now`.
  virtual void update(const std::vector<AccessibleElement>& now) = 0;
  /// Answers `call`.
  virtual void answer(Call& call) = 0;
};

}  // namespace quorvia::platform::atspi
