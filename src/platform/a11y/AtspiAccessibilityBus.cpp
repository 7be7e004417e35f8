// The SDK on the desktop's accessibility bus (AT-SPI, at-spi2-core), where
// screen readers such as Orca read the banner: it finds the bus, joins it and
// asks the registry to list it as an application of its own. GDBus runs on a
// thread of its own with its own GMainContext, so a slow or hostile bus never
// stalls the main queue; every question the bus asks goes to the main queue,
// where the application's objects (AtspiApplication.h) answer it from the
// view tree as it is at that moment.

#include <gio/gio.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "platform/AccessibilityBus.h"
#include "platform/GLibThreadContext.h"
#include "platform/Log.h"
#include "platform/a11y/AtspiApplication.h"
#include "quorvia/platform/RunLoop.h"

namespace quorvia::platform {
namespace {

using namespace atspi;

constexpr const char* kRegistryName = "org.a11y.atspi.Registry";
constexpr const char* kSocketInterface = "org.a11y.atspi.Socket";
constexpr const char* kLauncherName = "org.a11y.Bus";
constexpr const char* kLauncherPath = "/org/a11y/bus";

// The bus, its launcher and the registry each get this long to answer.
constexpr int kCallTimeoutMs = 10'000;
// Joining (finding the bus, connecting, registering) gives up after this.
constexpr guint kJoinTimeoutMs = 20'000;
// Questions waiting for the main queue; a client that floods the bus gets
// "busy" for the rest, so that nothing grows without bound.
constexpr int kMaxPendingCalls = 256;
constexpr std::size_t kMaxErrorTextBytes = 200;
constexpr guint kStopDrainMs = 2000;

std::string errorText(const GError* error) {
  std::string text = error && error->message ? error->message : "unknown error";
  if (text.size() > kMaxErrorTextBytes) text.resize(kMaxErrorTextBytes);
  gchar* valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
  text = valid;
  g_free(valid);
  return text;
}

class AtspiAccessibilityBus final : public AccessibilityBus {
 public:
  explicit AtspiAccessibilityBus(std::string appName)
      : cancellable_(g_cancellable_new()), main_(Application::make(std::move(appName))) {}

  ~AtspiAccessibilityBus() override {
    if (thread_.joinable()) {
      g_cancellable_cancel(cancellable_);
      glib_.quit();
      thread_.join();
    }
    g_object_unref(cancellable_);
    // The last reference to the objects goes to the main queue, where they live.
    dispatch_async([main = std::move(main_)] {});
  }

  void publish(std::weak_ptr<Tree> tree) override {
    main_->setTree(std::move(tree));
    if (!thread_.joinable()) thread_ = std::thread([this] { run(); });
  }

  void update(const std::vector<AccessibleElement>& now) override { main_->update(now); }

 private:
  // Everything below runs on the bus thread.

  void run() {
    pthread_setname_np(pthread_self(), "quorvia-a11y");
    g_main_context_push_thread_default(glib_.context());
    GSource* deadline = g_timeout_source_new(kJoinTimeoutMs);
    g_source_set_callback(
        deadline,
        [](gpointer self) -> gboolean {
          auto* bus = static_cast<AtspiAccessibilityBus*>(self);
          if (!bus->joined_) {
            bus->turnOff("the accessibility bus did not answer");
            g_cancellable_cancel(bus->cancellable_);
          }
          return G_SOURCE_REMOVE;
        },
        this, nullptr);
    g_source_attach(deadline, glib_.context());
    findBus();
    g_main_loop_run(glib_.loop());
    g_source_destroy(deadline);
    g_source_unref(deadline);
    stop();
    g_main_context_pop_thread_default(glib_.context());
  }

  // The bus's address: as the environment says, else as the bus launcher
  // on the session bus says (at-spi2-core's org.a11y.Bus).
  void findBus() {
    if (const char* address = std::getenv("AT_SPI_BUS_ADDRESS"); address && *address) {
      connect(address);
      return;
    }
    GError* error = nullptr;
    gchar* session = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SESSION, cancellable_, &error);
    if (!session) {
      turnOff("no session bus to find the accessibility bus on (" + errorText(error) + ")");
      g_clear_error(&error);
      return;
    }
    ++inFlight_;
    g_dbus_connection_new_for_address(
        session,
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, cancellable_, &AtspiAccessibilityBus::onSession, this);
    g_free(session);
  }

  static void onSession(GObject*, GAsyncResult* result, gpointer data) {
    auto* self = static_cast<AtspiAccessibilityBus*>(data);
    --self->inFlight_;
    GError* error = nullptr;
    GDBusConnection* session = g_dbus_connection_new_for_address_finish(result, &error);
    if (!session) {
      self->failed("the session bus cannot be reached", error);
      return;
    }
    g_dbus_connection_set_exit_on_close(session, FALSE);
    ++self->inFlight_;
    g_dbus_connection_call(session, kLauncherName, kLauncherPath, kLauncherName, "GetAddress",
                           nullptr, G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs,
                           self->cancellable_, &AtspiAccessibilityBus::onAddress, self);
    // The call keeps the connection until it is answered; closed after that.
    g_object_unref(session);
  }

  static void onAddress(GObject* source, GAsyncResult* result, gpointer data) {
    auto* self = static_cast<AtspiAccessibilityBus*>(data);
    --self->inFlight_;
    GDBusConnection* session = G_DBUS_CONNECTION(source);
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_finish(session, result, &error);
    g_dbus_connection_close(session, nullptr, nullptr, nullptr);
    if (!reply) {
      self->failed("no accessibility bus", error);
      return;
    }
    const gchar* address = nullptr;
    g_variant_get(reply, "(&s)", &address);
    const std::string copy = address;
    g_variant_unref(reply);
    if (copy.empty()) {
      self->turnOff("no accessibility bus (its launcher gave no address)");
      return;
    }
    self->connect(copy);
  }

  void connect(const std::string& address) {
    if (!g_dbus_is_address(address.c_str())) {
      turnOff("no accessibility bus (\"" + busString(address.substr(0, 100)) +
              "\" is not a bus address)");
      return;
    }
    ++inFlight_;
    g_dbus_connection_new_for_address(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, cancellable_, &AtspiAccessibilityBus::onConnected, this);
  }

  static void onConnected(GObject*, GAsyncResult* result, gpointer data) {
    auto* self = static_cast<AtspiAccessibilityBus*>(data);
    --self->inFlight_;
    GError* error = nullptr;
    GDBusConnection* connection = g_dbus_connection_new_for_address_finish(result, &error);
    if (!connection) {
      self->failed("the accessibility bus cannot be reached", error);
      return;
    }
    self->connection_ = connection;
    g_dbus_connection_set_exit_on_close(connection, FALSE);
    self->closedHandler_ = g_signal_connect(
        connection, "closed", G_CALLBACK(+[](GDBusConnection*, gboolean, GError*, gpointer data) {
          static_cast<AtspiAccessibilityBus*>(data)->turnOff(
              "the accessibility bus connection closed");
        }),
        self);
    self->registerObjects();
  }

  void registerObjects() {
    static const GDBusSubtreeVTable vtable = {&AtspiAccessibilityBus::enumerate,
                                              &AtspiAccessibilityBus::introspect,
                                              &AtspiAccessibilityBus::dispatch,
                                              {}};
    GError* error = nullptr;
    subtree_ = g_dbus_connection_register_subtree(
        connection_, kSubtreePath, &vtable, G_DBUS_SUBTREE_FLAGS_DISPATCH_TO_UNENUMERATED_NODES,
        this, nullptr, &error);
    if (subtree_ != 0) {
      static const GDBusInterfaceVTable cacheVTable = {
          &AtspiAccessibilityBus::onMethodCall, nullptr, nullptr, {}};
      cache_ = g_dbus_connection_register_object(connection_, kCachePath, interfaceInfo(kCache),
                                                 &cacheVTable, this, nullptr, &error);
    }
    if (subtree_ == 0 || cache_ == 0) {
      failed("the accessibility bus refused the SDK's objects", error);
      return;
    }
    // The registry lists the application on the desktop, where screen
    // readers look for it.
    ++inFlight_;
    g_dbus_connection_call(
        connection_, kRegistryName, kRootPath, kSocketInterface, "Embed",
        g_variant_new("((so))", g_dbus_connection_get_unique_name(connection_), kRootPath),
        G_VARIANT_TYPE("((so))"), G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, cancellable_,
        &AtspiAccessibilityBus::onEmbedded, this);
  }

  static void onEmbedded(GObject* source, GAsyncResult* result, gpointer data) {
    auto* self = static_cast<AtspiAccessibilityBus*>(data);
    --self->inFlight_;
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
    if (!reply) {
      self->failed("the accessibility registry did not take the application", error);
      return;
    }
    const gchar* desktopName = nullptr;
    const gchar* desktopPath = nullptr;
    g_variant_get(reply, "((&s&o))", &desktopName, &desktopPath);
    self->joined_ = true;
    // The connection goes along with a reference of its own, given up there.
    dispatch_async([main = self->main_,
                    connection = G_DBUS_CONNECTION(g_object_ref(self->connection_)),
                    unique = std::string(g_dbus_connection_get_unique_name(self->connection_)),
                    name = std::string(desktopName), path = std::string(desktopPath)] {
      main->joined(connection, unique, name, path);
      g_object_unref(connection);
    });
    g_variant_unref(reply);
  }

  static gchar** enumerate(GDBusConnection*, const gchar*, const gchar*, gpointer) {
    // Elements come and go with the banner; calls reach them unenumerated.
    return g_new0(gchar*, 1);
  }

  static bool isElementNode(const gchar* node) {
    if (!node) return false;
    if (g_strcmp0(node, kRootNode) == 0) return true;
    const std::size_t length = std::strlen(node);
    return length > 0 && length <= 19 && std::strspn(node, "0123456789") == length;
  }

  static GDBusInterfaceInfo** introspect(GDBusConnection*, const gchar*, const gchar*,
                                         const gchar* node, gpointer) {
    if (!isElementNode(node)) return nullptr;
    const bool root = g_strcmp0(node, kRootNode) == 0;
    GPtrArray* list = g_ptr_array_new();
    g_ptr_array_add(list, g_dbus_interface_info_ref(interfaceInfo(kAccessible)));
    if (root) {
      g_ptr_array_add(list, g_dbus_interface_info_ref(interfaceInfo(kApplication)));
    } else {
      // Whether an element can be pressed is known on the main queue; calls
      // to an Action it lacks are refused there.
      g_ptr_array_add(list, g_dbus_interface_info_ref(interfaceInfo(kComponent)));
      g_ptr_array_add(list, g_dbus_interface_info_ref(interfaceInfo(kAction)));
    }
    g_ptr_array_add(list, nullptr);
    return reinterpret_cast<GDBusInterfaceInfo**>(g_ptr_array_free(list, FALSE));
  }

  static const GDBusInterfaceVTable* dispatch(GDBusConnection*, const gchar*, const gchar*,
                                              const gchar*, const gchar* node, gpointer* target,
                                              gpointer data) {
    static const GDBusInterfaceVTable vtable = {
        &AtspiAccessibilityBus::onMethodCall, nullptr, nullptr, {}};
    if (!isElementNode(node)) return nullptr;
    *target = data;
    return &vtable;
  }

  // A question from a screen reader: off to the main queue, where the tree is.
  static void onMethodCall(GDBusConnection*, const gchar*, const gchar* path,
                           const gchar* interface, const gchar* member, GVariant* parameters,
                           GDBusMethodInvocation* invocation, gpointer data) {
    auto* self = static_cast<AtspiAccessibilityBus*>(data);
    if (self->pending_->load() >= kMaxPendingCalls) {
      g_dbus_method_invocation_return_dbus_error(invocation, kFailed,
                                                 "The application is busy; ask again");
      return;
    }
    ++*self->pending_;
    auto call = std::make_shared<Call>();
    call->path = path;
    call->interface = interface;
    call->member = member;
    call->parameters = g_variant_ref(parameters);
    call->invocation = invocation;
    call->pending = self->pending_;
    dispatch_async([main = self->main_, call] { main->answer(*call); });
  }

  void failed(const std::string& what, GError* error) {
    if (!g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
      turnOff(what + " (" + errorText(error) + ")");
    }
    g_clear_error(&error);
  }

  void turnOff(const std::string& why) {
    if (stopping_ || off_) return;
    off_ = true;
    NSLog("QuorviaSDK: " + why + "; screen readers do not see the banner");
    dispatch_async([main = main_] { main->left(); });
  }

  // After the loop ended: cancel what is in flight, let its callbacks run
  // (bounded), and leave the bus.
  void stop() {
    stopping_ = true;
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
    if (subtree_) g_dbus_connection_unregister_subtree(connection_, subtree_);
    if (cache_) g_dbus_connection_unregister_object(connection_, cache_);
    g_signal_handler_disconnect(connection_, closedHandler_);
    g_dbus_connection_close(connection_, nullptr, nullptr, nullptr);
    g_object_unref(connection_);
    connection_ = nullptr;
  }

  GLibThreadContext glib_;
  GCancellable* const cancellable_;
  std::shared_ptr<Application> main_;  // the objects, which live on the main queue
  const std::shared_ptr<std::atomic<int>> pending_ = std::make_shared<std::atomic<int>>(0);
  std::thread thread_;  // main thread only

  // Bus thread only.
  GDBusConnection* connection_ = nullptr;
  gulong closedHandler_ = 0;
  guint subtree_ = 0;
  guint cache_ = 0;
  int inFlight_ = 0;
  bool joined_ = false;
  bool off_ = false;
  bool stopping_ = false;
};

}  // namespace

std::shared_ptr<AccessibilityBus> makeAtspiAccessibilityBus(std::string appName) {
  return std::make_shared<AtspiAccessibilityBus>(std::move(appName));
}

}  // namespace quorvia::platform
