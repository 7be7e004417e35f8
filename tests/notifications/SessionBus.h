#pragma once
// A private session bus (dbus-daemon) started and ended by the test that owns
// it, and a notification service of the test's own on it: it owns
// org.freedesktop.Notifications, records every Notify call and emits the
// service's signals when told to.

#include <gio/gio.h>
#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace quorvia::testing {

class PrivateBus final {
 public:
  /// Starts dbus-daemon with a configuration in `directory` and waits
  /// (bounded) for its address. The bus activates no services, so a
  /// notification daemon installed on the machine never joins the test.
  explicit PrivateBus(const std::filesystem::path& directory);
  /// Ends the daemon by its PID and reaps it.
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  /// Empty when the daemon did not start.
  const std::string& address() const { return address_; }

 private:
  pid_t pid_ = -1;
  std::string address_;
};

/// One Notify call as the service received it.
struct NotifyCall {
  std::uint32_t id = 0;
  std::string sender;  // the caller's unique bus name
  std::string appName;
  std::string summary;
  std::string body;
  std::vector<std::string> actions;  // identifier, label, identifier, label...
};

class NotificationService final {
 public:
  /// Connects to `address` on a thread of its own and owns the service's
  /// name; owns() says whether that worked. `changed` runs on the service's
  /// thread after each call it records.
  NotificationService(const std::string& address, std::function<void()> changed);
  ~NotificationService();
  NotificationService(const NotificationService&) = delete;
  NotificationService& operator=(const NotificationService&) = delete;

  bool owns() const {
    std::lock_guard lock(mu_);
    return started_ && owns_;
  }
  /// Every Notify call so far. Any thread.
  std::vector<NotifyCall> calls() const;
  /// Ids given to CloseNotification so far. Any thread.
  std::vector<std::uint32_t> closed() const;
  /// Emits one of the service's signals (`parameters` is consumed if floating),
  /// to everyone or to `destination`.
  void emit(const char* member, GVariant* parameters, const char* destination = nullptr);

 private:
  static void onMethodCall(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                           const gchar* method, GVariant* parameters,
                           GDBusMethodInvocation* invocation, gpointer self);

  const std::function<void()> changed_;
  GMainContext* context_ = nullptr;
  GMainLoop* loop_ = nullptr;
  GDBusConnection* connection_ = nullptr;
  std::thread thread_;
  bool owns_ = false;
  mutable std::mutex mu_;
  std::condition_variable startedChanged_;
  bool started_ = false;  // guarded by mu_; owns_ and connection_ are set before it
  std::vector<NotifyCall> calls_;
  std::vector<std::uint32_t> closed_;
  std::uint32_t nextId_ = 1;
};

/// Another client of the bus that emits the service's signals as if it were
/// the service.
class Impostor final {
 public:
  explicit Impostor(const std::string& address);
  ~Impostor();
  Impostor(const Impostor&) = delete;
  Impostor& operator=(const Impostor&) = delete;

  /// Emits `member` on the service's path and interface to `destination`,
  /// then waits for a round trip to the bus, so that the bus has routed the
  /// signal before anything the caller does next.
  void emit(const char* member, GVariant* parameters, const char* destination);

 private:
  GDBusConnection* connection_ = nullptr;
};

}  // namespace quorvia::testing
