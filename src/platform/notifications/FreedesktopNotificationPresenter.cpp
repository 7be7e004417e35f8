// The desktop's notification centre: bubbles with answer buttons through the
// freedesktop Notifications service on the session bus, kept until the user
// answers or the app takes them back. GDBus runs on a thread of its own with
// its own GMainContext, so a slow or hostile bus never stalls the main queue;
// the user's choices go to the main queue.

#include <gio/gio.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/GLibThreadContext.h"
#include "platform/Log.h"
#include "quorvia/platform/NotificationPresenter.h"
#include "quorvia/platform/RunLoop.h"

namespace quorvia::platform {
namespace {

constexpr const char* kServiceName = "org.freedesktop.Notifications";
constexpr const char* kServicePath = "/org/freedesktop/Notifications";
constexpr const char* kServiceInterface = "org.freedesktop.Notifications";
constexpr const char* kBusName = "org.freedesktop.DBus";
constexpr const char* kBusPath = "/org/freedesktop/DBus";
// What a server that draws the bubble's own click as a button shows.
constexpr const char* kDefaultActionLabel = "Open";
// A poll waits for its answer as it would in the notification centre: the
// bubble never expires, and the server keeps it until the user acts or the
// app takes it back. Its urgency is "normal": a poll is not critical.
constexpr gint32 kNeverExpires = 0;
constexpr guchar kNormalUrgency = 1;

// A notification service that does not answer within this is treated as
// failed for that one notification.
constexpr int kCallTimeoutMs = 10'000;
// Bubbles show a few lines; a 4 MiB push must not become a 4 MiB message.
constexpr std::size_t kMaxBodyBytes = 4096;
constexpr std::size_t kMaxTitleBytes = 256;
// An identifier is sent back verbatim, so it is never cut, only refused.
constexpr std::size_t kMaxIdentifierBytes = 1024;
constexpr std::size_t kMaxButtons = 8;
// Bubbles whose buttons still answer; an older one is closed on the desktop.
constexpr std::size_t kMaxLiveNotifications = 64;
// Notifications waiting for the bus connection.
constexpr std::size_t kMaxWaitingNotifications = 64;
constexpr std::size_t kMaxErrorTextBytes = 200;
// A peer that floods the bus with bad signals gets this many log lines.
constexpr int kMaxIgnoredSignalLogs = 16;
// How long stopping waits for calls in flight to be cancelled.
constexpr guint kStopDrainMs = 2000;

// The last byte index <= `end` that starts a UTF-8 character.
std::size_t characterBoundary(std::string_view text, std::size_t end) {
  while (end > 0 && end < text.size() && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) {
    --end;
  }
  return end;
}

// Valid UTF-8 without NULs (a D-Bus string allows neither), at most `limit`
// bytes, cut at a character boundary.
std::string busString(std::string_view text, std::size_t limit) {
  std::string prefix(text.substr(0, characterBoundary(text, std::min(text.size(), limit))));
  std::replace(prefix.begin(), prefix.end(), '\0', ' ');
  gchar* valid = g_utf8_make_valid(prefix.data(), static_cast<gssize>(prefix.size()));
  std::string result(valid);
  g_free(valid);
  // Each invalid byte became a three-byte replacement character.
  if (result.size() > limit) result.resize(characterBoundary(result, limit));
  return result;
}

std::string errorText(const GError* error) {
  if (!error || !error->message) return "unknown error";
  return busString(error->message, kMaxErrorTextBytes);
}

bool acceptableIdentifier(const std::string& identifier) {
  return !identifier.empty() && identifier != kNotificationDefaultAction &&
         identifier.size() <= kMaxIdentifierBytes && identifier.find('\0') == std::string::npos &&
         g_utf8_validate(identifier.data(), static_cast<gssize>(identifier.size()), nullptr);
}

// Main queue only: the handler, so that it runs and dies there.
struct MainSide {
  NotificationPresenter::ActionHandler handler;
};

class FreedesktopNotificationPresenter final : public NotificationPresenter {
 public:
  FreedesktopNotificationPresenter()
      : glib_(G_PRIORITY_DEFAULT), cancellable_(g_cancellable_new()) {}

  ~FreedesktopNotificationPresenter() override {
    {
      std::lock_guard lock(mu_);
      stopping_ = true;
    }
    if (thread_.joinable()) {
      g_cancellable_cancel(cancellable_);
      glib_.quit();
      thread_.join();
    }
    g_object_unref(cancellable_);
    // The last reference to the handler goes to the main queue.
    dispatch_async([main = std::move(main_)] {});
  }

  void setActionHandler(ActionHandler handler) override {
    dispatch_async([main = main_, handler = std::move(handler)]() mutable {
      main->handler = std::move(handler);
    });
  }

  void present(Notification notification) override {
    if (off_.load()) return;
    bool dropped = false;
    {
      std::lock_guard lock(mu_);
      if (stopping_) return;
      if (waiting_.size() >= kMaxWaitingNotifications) {
        waiting_.pop_front();
        dropped = true;
      }
      waiting_.push_back(std::move(notification));
      if (!thread_.joinable()) {
        thread_ = std::thread([this] { run(); });
      } else {
        glib_.post([this] { showWaiting(); });
      }
    }
    if (dropped) {
      debugLog(
          "QuorviaSDK: too many desktop notifications wait for the session bus; the oldest "
          "was dropped");
    }
  }

  void withdraw(std::function<bool(const Value&)> matches) override {
    if (!matches) return;
    std::lock_guard lock(mu_);
    // No thread yet: nothing was ever presented.
    if (stopping_ || !thread_.joinable()) return;
    glib_.post([this, matches = std::move(matches)] { withdrawOnBus(matches); });
  }

 private:
  struct Live {
    std::vector<std::string> identifiers;
    Value payload;
  };
  struct PendingNotify {
    FreedesktopNotificationPresenter* self;
    std::vector<std::string> identifiers;
    Value payload;
    bool withdrawn = false;  // taken back before the service answered
  };

  // Everything below runs on the bus thread.

  void run() {
    pthread_setname_np(pthread_self(), "quorvia-dbus");
    g_main_context_push_thread_default(glib_.context());
    connect();
    g_main_loop_run(glib_.loop());
    stop();
    g_main_context_pop_thread_default(glib_.context());
  }

  void connect() {
    GError* error = nullptr;
    gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SESSION, cancellable_, &error);
    if (!address) {
      turnOff("no session bus (" + errorText(error) + ")");
      g_clear_error(&error);
      return;
    }
    // A connection of our own, not the process's shared one: it dispatches on
    // this thread's context, and its loss does not end the host's process
    // (the shared connection exits on close).
    ++inFlight_;
    g_dbus_connection_new_for_address(
        address,
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, cancellable_, &FreedesktopNotificationPresenter::onConnected, this);
    g_free(address);
  }

  static void onConnected(GObject*, GAsyncResult* result, gpointer data) {
    auto* self = static_cast<FreedesktopNotificationPresenter*>(data);
    --self->inFlight_;
    GError* error = nullptr;
    GDBusConnection* connection = g_dbus_connection_new_for_address_finish(result, &error);
    if (!connection) {
      if (!g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
        self->turnOff("the session bus cannot be reached (" + errorText(error) + ")");
      }
      g_clear_error(&error);
      return;
    }
    self->connected(connection);
  }

  void connected(GDBusConnection* connection) {
    connection_ = connection;
    g_dbus_connection_set_exit_on_close(connection_, FALSE);
    closedHandler_ = g_signal_connect(
        connection_, "closed", G_CALLBACK(+[](GDBusConnection*, gboolean, GError*, gpointer data) {
          static_cast<FreedesktopNotificationPresenter*>(data)->turnOff(
              "the session bus connection closed");
        }),
        this);
    subscriptions_.push_back(g_dbus_connection_signal_subscribe(
        connection_, kBusName, kBusName, "NameOwnerChanged", kBusPath, kServiceName,
        G_DBUS_SIGNAL_FLAGS_NONE, &FreedesktopNotificationPresenter::onSignal, this, nullptr));
    // Any sender: the check against the service's owner is ours (onBusSignal),
    // not left to what this GLib's matching of well-known names does.
    for (const char* member : {"ActionInvoked", "NotificationClosed"}) {
      subscriptions_.push_back(g_dbus_connection_signal_subscribe(
          connection_, nullptr, kServiceInterface, member, kServicePath, nullptr,
          G_DBUS_SIGNAL_FLAGS_NONE, &FreedesktopNotificationPresenter::onSignal, this, nullptr));
    }
    askForOwner();
  }

  void askForOwner() {
    call(kBusName, kBusPath, kBusName, "GetNameOwner", g_variant_new("(s)", kServiceName), "(s)",
         &FreedesktopNotificationPresenter::onOwnerKnown, this);
  }

  void call(const char* destination, const char* path, const char* interface, const char* method,
            GVariant* parameters, const char* replyType, GAsyncReadyCallback done, gpointer data) {
    ++inFlight_;
    g_dbus_connection_call(connection_, destination, path, interface, method, parameters,
                           G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs,
                           cancellable_, done, data);
  }

  // The reply of a call, or null (error set) when it failed.
  static GVariant* finish(GObject* source, GAsyncResult* result, GError** error) {
    return g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, error);
  }

  static void onServiceStarted(GObject* source, GAsyncResult* result, gpointer data) {
    auto* self = static_cast<FreedesktopNotificationPresenter*>(data);
    --self->inFlight_;
    GError* error = nullptr;
    GVariant* reply = finish(source, result, &error);
    if (!reply) {
      if (!g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
        self->turnOff("no notification service on the session bus (" + errorText(error) + ")");
      }
      g_clear_error(&error);
      return;
    }
    g_variant_unref(reply);
    self->activationTried_ = true;
    self->askForOwner();
  }

  static void onOwnerKnown(GObject* source, GAsyncResult* result, gpointer data) {
    auto* self = static_cast<FreedesktopNotificationPresenter*>(data);
    --self->inFlight_;
    GError* error = nullptr;
    GVariant* reply = finish(source, result, &error);
    if (!reply) {
      const bool cancelled = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED);
      if (!cancelled && !self->activationTried_) {
        // Nobody runs it yet: the bus may start one that it activates on
        // demand.
        self->call(kBusName, kBusPath, kBusName, "StartServiceByName",
                   g_variant_new("(su)", kServiceName, 0u), "(u)",
                   &FreedesktopNotificationPresenter::onServiceStarted, self);
      } else if (!cancelled) {
        self->turnOff("no notification service on the session bus (" + errorText(error) + ")");
      }
      g_clear_error(&error);
      return;
    }
    const gchar* owner = nullptr;
    g_variant_get(reply, "(&s)", &owner);
    self->owner_ = owner;
    g_variant_unref(reply);
    if (self->off_.load()) return;
    self->ready_ = true;
    self->showWaiting();
  }

  void showWaiting() {
    if (!ready_ || off_.load()) return;
    std::deque<Notification> batch;
    {
      std::lock_guard lock(mu_);
      batch.swap(waiting_);
    }
    for (Notification& notification : batch) show(std::move(notification));
  }

  void show(Notification notification) {
    auto* pending = new PendingNotify{this, {}, std::move(notification.payload)};
    GVariantBuilder actions;
    g_variant_builder_init(&actions, G_VARIANT_TYPE("as"));
    for (const Button& button : notification.buttons) {
      if (pending->identifiers.size() == kMaxButtons) {
        debugLog("QuorviaSDK: a desktop notification shows only its first " +
                 std::to_string(kMaxButtons) + " buttons");
        break;
      }
      if (!acceptableIdentifier(button.identifier)) {
        debugLog(
            "QuorviaSDK: a notification button was left out: its identifier is empty, "
            "\"default\", longer than " +
            std::to_string(kMaxIdentifierBytes) + " bytes or not UTF-8");
        continue;
      }
      pending->identifiers.push_back(button.identifier);
      g_variant_builder_add(&actions, "s", button.identifier.c_str());
      g_variant_builder_add(&actions, "s", busString(button.title, kMaxTitleBytes).c_str());
    }
    g_variant_builder_add(&actions, "s", kNotificationDefaultAction);
    g_variant_builder_add(&actions, "s", kDefaultActionLabel);
    GVariantBuilder hints;
    g_variant_builder_init(&hints, G_VARIANT_TYPE("a{sv}"));
    g_variant_builder_add(&hints, "{sv}", "urgency", g_variant_new_byte(kNormalUrgency));
    g_variant_builder_add(&hints, "{sv}", "resident", g_variant_new_boolean(TRUE));
    const std::string appName = busString(notification.appName, kMaxTitleBytes);
    const std::string body = busString(notification.body, kMaxBodyBytes);
    notifying_.push_back(pending);
    call(kServiceName, kServicePath, kServiceInterface, "Notify",
         g_variant_new("(susssasa{sv}i)", appName.c_str(), 0u, "", appName.c_str(), body.c_str(),
                       &actions, &hints, kNeverExpires),
         "(u)", &FreedesktopNotificationPresenter::onShown, pending);
  }

  static void onShown(GObject* source, GAsyncResult* result, gpointer data) {
    std::unique_ptr<PendingNotify> pending(static_cast<PendingNotify*>(data));
    FreedesktopNotificationPresenter* self = pending->self;
    --self->inFlight_;
    std::erase(self->notifying_, pending.get());
    GError* error = nullptr;
    GVariant* reply = finish(source, result, &error);
    if (!reply) {
      if (!g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
        debugLog("QuorviaSDK: the desktop notification service did not show a notification (" +
                 errorText(error) + ")");
      }
      g_clear_error(&error);
      return;
    }
    guint32 id = 0;
    g_variant_get(reply, "(u)", &id);
    g_variant_unref(reply);
    if (pending->withdrawn) {
      self->close(id);
      return;
    }
    self->remember(id, Live{std::move(pending->identifiers), std::move(pending->payload)});
  }

  void remember(guint32 id, Live live) {
    forget(id);
    live_[id] = std::move(live);
    order_.push_back(id);
    if (order_.size() <= kMaxLiveNotifications) return;
    const guint32 oldest = order_.front();
    forget(oldest);
    // Its buttons would no longer answer; better gone from the desktop too.
    close(oldest);
  }

  void forget(guint32 id) {
    live_.erase(id);
    std::erase(order_, id);
  }

  // Takes a bubble off the desktop; its outcome is of no further interest.
  void close(guint32 id) {
    g_dbus_connection_call(connection_, kServiceName, kServicePath, kServiceInterface,
                           "CloseNotification", g_variant_new("(u)", id), nullptr,
                           G_DBUS_CALL_FLAGS_NO_AUTO_START, kCallTimeoutMs, nullptr, nullptr,
                           nullptr);
  }

  void withdrawOnBus(const std::function<bool(const Value&)>& matches) {
    {
      std::lock_guard lock(mu_);
      std::erase_if(waiting_, [&](const Notification& n) { return matches(n.payload); });
    }
    for (PendingNotify* pending : notifying_) {
      if (matches(pending->payload)) pending->withdrawn = true;
    }
    std::vector<guint32> ids;
    for (const auto& [id, live] : live_) {
      if (matches(live.payload)) ids.push_back(id);
    }
    for (guint32 id : ids) {
      forget(id);
      close(id);
    }
  }

  static void onSignal(GDBusConnection*, const gchar* sender, const gchar*, const gchar*,
                       const gchar* member, GVariant* parameters, gpointer data) {
    static_cast<FreedesktopNotificationPresenter*>(data)->onBusSignal(
        sender ? sender : "", member ? member : "", parameters);
  }

  void onBusSignal(const std::string& sender, const std::string& member, GVariant* parameters) {
    if (member == "NameOwnerChanged") {
      if (sender != kBusName || !g_variant_is_of_type(parameters, G_VARIANT_TYPE("(sss)"))) return;
      const gchar* newOwner = nullptr;
      g_variant_get(parameters, "(&s&s&s)", nullptr, nullptr, &newOwner);
      // Another server (or none): the ids of the old one mean nothing now.
      owner_ = newOwner;
      live_.clear();
      order_.clear();
      return;
    }
    // Only the service's current owner speaks for its bubbles.
    if (owner_.empty() || sender != owner_) {
      ignored("it does not come from the notification service");
      return;
    }
    if (member == "NotificationClosed") {
      if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(uu)"))) {
        ignored("NotificationClosed does not carry (uu)");
        return;
      }
      guint32 id = 0;
      g_variant_get(parameters, "(uu)", &id, nullptr);
      forget(id);
      return;
    }
    if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(us)"))) {
      ignored("ActionInvoked does not carry (us)");
      return;
    }
    guint32 id = 0;
    const gchar* key = nullptr;
    g_variant_get(parameters, "(u&s)", &id, &key);
    const auto found = live_.find(id);
    if (found == live_.end()) {
      ignored("no notification of this app has id " + std::to_string(id));
      return;
    }
    const std::vector<std::string>& identifiers = found->second.identifiers;
    const std::string_view action(key);
    if (action != kNotificationDefaultAction &&
        std::find(identifiers.begin(), identifiers.end(), action) == identifiers.end()) {
      ignored("notification " + std::to_string(id) + " has no such action");
      return;
    }
    Value payload = std::move(found->second.payload);
    forget(id);  // one answer per notification
    // A resident bubble stays after its answer unless it is taken back.
    close(id);
    dispatch_async(
        [main = main_, identifier = std::string(action), payload = std::move(payload)]() mutable {
          if (main->handler) main->handler(std::move(identifier), std::move(payload));
        });
  }

  void ignored(const std::string& why) {
    if (ignoredLogs_ >= kMaxIgnoredSignalLogs) return;
    ++ignoredLogs_;
    debugLog("QuorviaSDK: a desktop notification signal was ignored: " + why);
  }

  void turnOff(const std::string& why) {
    {
      std::lock_guard lock(mu_);
      waiting_.clear();
      if (stopping_) return;  // our own shutdown is no news
    }
    ready_ = false;
    if (off_.exchange(true)) return;
    debugLog("QuorviaSDK: " + why + "; desktop notifications are off");
  }

  // After the loop ended: cancel what is in flight, let its callbacks run
  // (bounded), and let go of the connection.
  void stop() {
    g_cancellable_cancel(cancellable_);
    bool late = false;
    GSource* deadline = g_timeout_source_new(kStopDrainMs);
    g_source_set_callback(
        deadline,
        [](gpointer flag) -> gboolean {
          *static_cast<bool*>(flag) = true;
          return G_SOURCE_REMOVE;
        },
        &late, nullptr);
    g_source_attach(deadline, glib_.context());
    while (inFlight_ > 0 && !late) g_main_context_iteration(glib_.context(), TRUE);
    g_source_destroy(deadline);
    g_source_unref(deadline);
    if (!connection_) return;
    for (guint id : subscriptions_) g_dbus_connection_signal_unsubscribe(connection_, id);
    g_signal_handler_disconnect(connection_, closedHandler_);
    g_dbus_connection_close(connection_, nullptr, nullptr, nullptr);
    g_object_unref(connection_);
    connection_ = nullptr;
  }

  GLibThreadContext glib_;
  GCancellable* const cancellable_;
  std::shared_ptr<MainSide> main_ = std::make_shared<MainSide>();
  std::atomic<bool> off_{false};

  std::mutex mu_;
  bool stopping_ = false;             // guarded by mu_
  std::deque<Notification> waiting_;  // guarded by mu_
  std::thread thread_;                // guarded by mu_ until the destructor

  // Bus thread only.
  GDBusConnection* connection_ = nullptr;
  gulong closedHandler_ = 0;
  std::vector<guint> subscriptions_;
  int inFlight_ = 0;
  bool ready_ = false;
  bool activationTried_ = false;
  std::string owner_;  // unique name of the service's owner; empty: none
  std::map<guint32, Live> live_;
  std::deque<guint32> order_;              // live ids, oldest first
  std::vector<PendingNotify*> notifying_;  // Notify calls not yet answered
  int ignoredLogs_ = 0;
};

}  // namespace

std::shared_ptr<NotificationPresenter> makeFreedesktopNotificationPresenter() {
  return std::make_shared<FreedesktopNotificationPresenter>();
}

}  // namespace quorvia::platform
