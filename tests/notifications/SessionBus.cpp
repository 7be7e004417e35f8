#include "notifications/SessionBus.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>

extern char** environ;

namespace quorvia::testing {
namespace {

constexpr int kStartTimeoutMs = 10'000;
constexpr int kCallTimeoutMs = 10'000;

constexpr const char* kIntrospection = R"(
<node>
  <interface name="org.freedesktop.Notifications">
    <method name="Notify">
      <arg type="s" direction="in"/><arg type="u" direction="in"/><arg type="s" direction="in"/>
      <arg type="s" direction="in"/><arg type="s" direction="in"/><arg type="as" direction="in"/>
      <arg type="a{sv}" direction="in"/><arg type="i" direction="in"/>
      <arg type="u" direction="out"/>
    </method>
    <method name="CloseNotification"><arg type="u" direction="in"/></method>
    <method name="GetCapabilities"><arg type="as" direction="out"/></method>
    <method name="GetServerInformation">
      <arg type="s" direction="out"/><arg type="s" direction="out"/>
      <arg type="s" direction="out"/><arg type="s" direction="out"/>
    </method>
    <signal name="ActionInvoked"><arg type="u"/><arg type="s"/></signal>
    <signal name="NotificationClosed"><arg type="u"/><arg type="u"/></signal>
  </interface>
</node>)";

GDBusConnection* connectTo(const std::string& address) {
  return g_dbus_connection_new_for_address_sync(
      address.c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, nullptr);
}

}  // namespace

PrivateBus::PrivateBus(const std::filesystem::path& directory) {
  std::filesystem::create_directories(directory);
  const auto config = directory / "bus.conf";
  std::ofstream(config)
      << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
         " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
         "<busconfig><type>session</type><listen>unix:dir="
      << directory.string()
      << "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
         "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
         "<allow own=\"*\"/></policy></busconfig>\n";
  int out[2];
  if (::pipe2(out, O_CLOEXEC) != 0) return;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  const std::string log = (directory / "bus.log").string();
  posix_spawn_file_actions_addopen(&actions, 2, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  std::string program = "/usr/bin/dbus-daemon";
  std::string configFlag = "--config-file=" + config.string();
  std::string nofork = "--nofork";
  std::string printAddress = "--print-address";
  char* argv[] = {program.data(), configFlag.data(), nofork.data(), printAddress.data(), nullptr};
  const int spawned = ::posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(out[1]);
  if (spawned != 0) {
    pid_ = -1;
    ::close(out[0]);
    return;
  }
  // The daemon prints its address, one line, once it listens.
  std::string line;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(kStartTimeoutMs);
  while (line.find('\n') == std::string::npos) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd readable{out[0], POLLIN, 0};
    if (left.count() <= 0 || ::poll(&readable, 1, static_cast<int>(left.count())) <= 0) break;
    char buffer[512];
    const ssize_t n = ::read(out[0], buffer, sizeof buffer);
    if (n <= 0) break;
    line.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(out[0]);
  if (const auto end = line.find('\n'); end != std::string::npos) address_ = line.substr(0, end);
}

PrivateBus::~PrivateBus() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGTERM);
  ::waitpid(pid_, nullptr, 0);
}

NotificationService::NotificationService(const std::string& address, std::function<void()> changed)
    : changed_(std::move(changed)),
      context_(g_main_context_new()),
      loop_(g_main_loop_new(context_, FALSE)) {
  thread_ = std::thread([this, address] {
    g_main_context_push_thread_default(context_);
    connection_ = connectTo(address);
    if (connection_) {
      GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kIntrospection, nullptr);
      static const GDBusInterfaceVTable vtable = {
          &NotificationService::onMethodCall, nullptr, nullptr, {}};
      g_dbus_connection_register_object(connection_, "/org/freedesktop/Notifications",
                                        node->interfaces[0], &vtable, this, nullptr, nullptr);
      g_dbus_node_info_unref(node);
      GVariant* reply = g_dbus_connection_call_sync(
          connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
          "RequestName", g_variant_new("(su)", "org.freedesktop.Notifications", 4u),
          G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr, nullptr);
      if (reply) {
        guint32 result = 0;
        g_variant_get(reply, "(u)", &result);
        owns_ = result == 1;  // the primary owner
        g_variant_unref(reply);
      }
    }
    {
      std::lock_guard lock(mu_);
      started_ = true;
      startedChanged_.notify_all();
    }
    g_main_loop_run(loop_);
    if (connection_) {
      g_dbus_connection_close_sync(connection_, nullptr, nullptr);
      g_object_unref(connection_);
    }
    g_main_context_pop_thread_default(context_);
  });
  std::unique_lock lock(mu_);
  startedChanged_.wait_for(lock, std::chrono::milliseconds(kStartTimeoutMs),
                           [this] { return started_; });
}

NotificationService::~NotificationService() {
  GSource* quit = g_idle_source_new();
  g_source_set_callback(
      quit,
      [](gpointer loop) -> gboolean {
        g_main_loop_quit(static_cast<GMainLoop*>(loop));
        return G_SOURCE_REMOVE;
      },
      loop_, nullptr);
  g_source_attach(quit, context_);
  g_source_unref(quit);
  thread_.join();
  g_main_loop_unref(loop_);
  g_main_context_unref(context_);
}

void NotificationService::onMethodCall(GDBusConnection*, const gchar* sender, const gchar*,
                                       const gchar*, const gchar* method, GVariant* parameters,
                                       GDBusMethodInvocation* invocation, gpointer data) {
  auto* self = static_cast<NotificationService*>(data);
  const std::string name(method);
  if (name == "Notify") {
    NotifyCall call;
    call.sender = sender;
    const gchar *appName, *icon, *summary, *body;
    guint32 replaces = 0;
    gint32 timeout = 0;
    GVariantIter* actions = nullptr;
    g_variant_get(parameters, "(&su&s&s&sasa{sv}i)", &appName, &replaces, &icon, &summary, &body,
                  &actions, nullptr, &timeout);
    call.appName = appName;
    call.summary = summary;
    call.body = body;
    for (const gchar* action; g_variant_iter_next(actions, "&s", &action);) {
      call.actions.emplace_back(action);
    }
    g_variant_iter_free(actions);
    {
      std::lock_guard lock(self->mu_);
      call.id = self->nextId_++;
    }
    // Answered before it is recorded: a signal the test emits once it sees the
    // call then follows the answer on the bus, as a real server's would.
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(u)", call.id));
    {
      std::lock_guard lock(self->mu_);
      self->calls_.push_back(call);
    }
    self->changed_();
  } else if (name == "CloseNotification") {
    guint32 id = 0;
    g_variant_get(parameters, "(u)", &id);
    {
      std::lock_guard lock(self->mu_);
      self->closed_.push_back(id);
    }
    self->changed_();
    g_dbus_method_invocation_return_value(invocation, nullptr);
  } else if (name == "GetCapabilities") {
    const gchar* capabilities[] = {"actions", "body", nullptr};
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(^as)", capabilities));
  } else {
    g_dbus_method_invocation_return_value(
        invocation, g_variant_new("(ssss)", "quorvia-test", "quorvia", "1", "1.2"));
  }
}

std::vector<NotifyCall> NotificationService::calls() const {
  std::lock_guard lock(mu_);
  return calls_;
}

std::vector<std::uint32_t> NotificationService::closed() const {
  std::lock_guard lock(mu_);
  return closed_;
}

void NotificationService::emit(const char* member, GVariant* parameters, const char* destination) {
  g_dbus_connection_emit_signal(connection_, destination, "/org/freedesktop/Notifications",
                                "org.freedesktop.Notifications", member, parameters, nullptr);
}

Impostor::Impostor(const std::string& address) : connection_(connectTo(address)) {}

Impostor::~Impostor() {
  if (!connection_) return;
  g_dbus_connection_close_sync(connection_, nullptr, nullptr);
  g_object_unref(connection_);
}

void Impostor::emit(const char* member, GVariant* parameters, const char* destination) {
  g_dbus_connection_emit_signal(connection_, destination, "/org/freedesktop/Notifications",
                                "org.freedesktop.Notifications", member, parameters, nullptr);
  GVariant* reply = g_dbus_connection_call_sync(
      connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId",
      nullptr, G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr, nullptr);
  if (reply) g_variant_unref(reply);
}

}  // namespace quorvia::testing
