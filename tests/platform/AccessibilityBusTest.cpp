// The SDK's application on the accessibility bus (AT-SPI) when the bus is missing, broken or
// hostile: one log line and nothing else when it cannot join; to every question a client asks
// an answer or an error, never a crash, and a bounded number of questions waiting.

#include <gio/gio.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "platform/AccessibilityBus.h"
#include "support/PlatformTest.h"
#include "support/PrivateBus.h"

namespace quorvia::testing {
namespace {

using platform::AccessibleElement;
using platform::AccessibleRole;

constexpr const char* kRoot = "/org/a11y/atspi/accessible/root";
constexpr const char* kNotSeen = "screen readers do not see the banner";

// A banner of three elements: the alert, a button and a label that can be pressed.
class FakeTree final : public platform::AccessibilityBus::Tree {
 public:
  std::vector<AccessibleElement> accessibleElements() override {
    AccessibleElement alert{AccessibleRole::kAlert, "Poll", platform::Rect::make(0, 20, 375, 330)};
    alert.showing = true;
    alert.id = 1;
    AccessibleElement yes{
        AccessibleRole::kPushButton, "Yes", platform::Rect::make(10, 100, 355, 50), 0, true, true};
    yes.id = 2;
    AccessibleElement question{
        AccessibleRole::kLabel, "Q?", platform::Rect::make(26, 60, 300, 20), 0, true, true};
    question.id = 3;
    return {alert, yes, question};
  }
  bool pressElement(std::uint64_t id) override {
    pressed.push_back(id);
    return id == 2 || id == 3;
  }
  bool focusElement(std::uint64_t id) override { return id == 2; }
  platform::Point screenOrigin() override { return {100, 50}; }
  double scale() override { return 2; }

  std::vector<std::uint64_t> pressed;  // main thread
};

// A connection of the test's to the private bus, with a thread of its own. As the registry it
// owns org.a11y.atspi.Registry and answers Embed, with the desktop's reference or, when
// `nonsense`, with a string; it keeps who embedded.
class BusClient {
 public:
  explicit BusClient(const std::string& address) {
    connection_ = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
  }
  ~BusClient() {
    if (thread_.joinable()) {
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
    }
    if (connection_) {
      g_dbus_connection_close_sync(connection_, nullptr, nullptr);
      g_object_unref(connection_);
    }
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
  }
  bool connected() const { return connection_ != nullptr; }

  void actAsRegistry(bool nonsense) {
    const std::string xml =
        std::string(
            "<node><interface name='org.a11y.atspi.Socket'><method name='Embed'>"
            "<arg type='(so)' direction='in'/><arg type='") +
        (nonsense ? "s" : "(so)") + "' direction='out'/></method></interface></node>";
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(xml.c_str(), nullptr);
    static const GDBusInterfaceVTable vtable = {&BusClient::onEmbed, nullptr, nullptr, {}};
    nonsense_ = nonsense;
    g_main_context_push_thread_default(context_);
    g_dbus_connection_register_object(connection_, kRoot, node->interfaces[0], &vtable, this,
                                      nullptr, nullptr);
    g_main_context_pop_thread_default(context_);
    g_dbus_node_info_unref(node);
    GVariant* reply = g_dbus_connection_call_sync(
        connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "RequestName", g_variant_new("(su)", "org.a11y.atspi.Registry", 4u), nullptr,
        G_DBUS_CALL_FLAGS_NONE, 10'000, nullptr, nullptr);
    if (reply) g_variant_unref(reply);
    thread_ = std::thread([this] { g_main_loop_run(loop_); });
  }
  // The bus name of the application that embedded itself; empty until one did.
  std::string embedded() const {
    std::lock_guard lock(mu_);
    return embedded_;
  }

  GDBusConnection* connection() const { return connection_; }

 private:
  static void onEmbed(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                      GVariant* parameters, GDBusMethodInvocation* invocation, gpointer data) {
    auto* self = static_cast<BusClient*>(data);
    const gchar* name = nullptr;
    g_variant_get(parameters, "((&s&o))", &name, nullptr);
    g_dbus_method_invocation_return_value(
        invocation,
        self->nonsense_
            ? g_variant_new("(s)", "no")
            : g_variant_new("((so))", g_dbus_connection_get_unique_name(self->connection_), kRoot));
    std::lock_guard lock(self->mu_);
    self->embedded_ = name;
  }

  GMainContext* const context_ = g_main_context_new();
  GMainLoop* const loop_ = g_main_loop_new(context_, FALSE);
  GDBusConnection* connection_ = nullptr;
  std::thread thread_;
  bool nonsense_ = false;
  mutable std::mutex mu_;
  std::string embedded_;
};

class AccessibilityBusTest : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    // Lines come from the bus's thread: each wakes the main queue, so that a
    // wait for a line ends when it comes.
    log_.onLine = [loop = loop_] { loop->post([] {}); };
    bus_ = std::make_unique<PrivateBus>(dataDir_ / "bus");
    ASSERT_FALSE(bus_->address.empty()) << "dbus-daemon did not start";
  }
  void TearDown() override {
    drain();
    bus_.reset();
    PlatformTest::TearDown();
  }
  bool waitFor(const std::function<bool()>& done) {
    return loop_->runUntil(done, std::chrono::seconds(20));
  }
  int notSeen() const {
    int n = 0;
    for (const auto& line : log_.lines()) n += line.find(kNotSeen) != std::string::npos;
    return n;
  }

  std::unique_ptr<PrivateBus> bus_;
  std::shared_ptr<FakeTree> tree_ = std::make_shared<FakeTree>();
};

// Without a bus, or with one it cannot join, the SDK says so once and does nothing else.
TEST_F(AccessibilityBusTest, ABusThatCannotBeJoinedIsOneLine) {
  struct Case {
    const char* what;
    std::string address;           // AT_SPI_BUS_ADDRESS; empty: the session bus's launcher is asked
    std::optional<bool> registry;  // none, or a registry that answers (nonsense or not)
    const char* says;
  };
  const Case cases[] = {
      {"nothing listens there",
       "unix:path=" + (dataDir_ / "none").string(),
       {},
       "the accessibility bus cannot be reached"},
      {"not an address at all", "no bus here", {}, "is not a bus address"},
      {"a session bus without the launcher", "", {}, "no accessibility bus"},
      {"a bus without a registry", bus_->address, {}, "did not take the application"},
      {"a registry that answers nonsense", bus_->address, true, "did not take the application"},
  };
  ::setenv("DBUS_SESSION_BUS_ADDRESS", bus_->address.c_str(), 1);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    log_.clear();
    std::unique_ptr<BusClient> registry;
    if (c.registry) {
      registry = std::make_unique<BusClient>(bus_->address);
      ASSERT_TRUE(registry->connected());
      registry->actAsRegistry(*c.registry);
    }
    if (c.address.empty()) {
      ::unsetenv("AT_SPI_BUS_ADDRESS");
    } else {
      ::setenv("AT_SPI_BUS_ADDRESS", c.address.c_str(), 1);
    }
    auto bus = platform::makeAtspiAccessibilityBus("test-app");
    bus->publish(tree_);
    ASSERT_TRUE(waitFor([&] { return notSeen() > 0; }));
    for (int i = 0; i < 3; ++i) bus->update(tree_->accessibleElements());
    bus.reset();  // leaves, joining its thread
    drain();
    EXPECT_EQ(log_.lines().size(), 1u) << ::testing::PrintToString(log_.lines());
    EXPECT_NE(log_.lines().front().find(c.says), std::string::npos) << log_.lines().front();
    EXPECT_TRUE(tree_->pressed.empty());
  }
}

// What a client asks, however odd, gets an answer or an error; a flood of questions gets
// "busy" beyond a bound instead of a queue without end.
TEST_F(AccessibilityBusTest, OddQuestionsGetAnswersOrErrors) {
  BusClient registry(bus_->address);
  ASSERT_TRUE(registry.connected());
  registry.actAsRegistry(false);
  ::setenv("AT_SPI_BUS_ADDRESS", bus_->address.c_str(), 1);
  auto bus = platform::makeAtspiAccessibilityBus("test-app");
  bus->publish(tree_);
  ASSERT_TRUE(waitFor([&] { return !registry.embedded().empty(); }));
  const std::string app = registry.embedded();
  BusClient client(bus_->address);
  ASSERT_TRUE(client.connected());

  struct Question {
    std::string path;
    const char* interface;
    const char* method;
    GVariant* parameters;  // consumed
    std::string answer;    // the reply as GVariant prints it, or the error's D-Bus name
  };
  const std::string object = "/org/a11y/atspi/accessible/";
  std::vector<Question> questions = {
      {kRoot, "org.a11y.atspi.Accessible", "GetChildren", nullptr,
       "([('" + app + "', objectpath '" + object + "1')],)"},
      {object + "2", "org.a11y.atspi.Accessible", "GetRole", nullptr, "(uint32 43,)"},
      {object + "1", "org.a11y.atspi.Accessible", "GetChildAtIndex", g_variant_new("(i)", -1),
       "(('" + app + "', objectpath '/org/a11y/atspi/null'),)"},
      {object + "1", "org.a11y.atspi.Accessible", "GetChildAtIndex",
       g_variant_new("(i)", 2147483647), "(('" + app + "', objectpath '/org/a11y/atspi/null'),)"},
      // Screen pixels: the window's origin plus the frame at scale 2.
      {object + "2", "org.a11y.atspi.Component", "GetExtents", g_variant_new("(u)", 0u),
       "((120, 250, 710, 100),)"},
      {object + "2", "org.a11y.atspi.Component", "GetExtents", g_variant_new("(u)", 99u),
       "org.freedesktop.DBus.Error.NotSupported"},
      {object + "2", "org.a11y.atspi.Component", "GetAccessibleAtPoint",
       g_variant_new("(iiu)", 2147483647, -2147483647 - 1, 0u),
       "(('" + app + "', objectpath '/org/a11y/atspi/null'),)"},
      {object + "2", "org.a11y.atspi.Action", "DoAction", g_variant_new("(i)", 1),
       "org.freedesktop.DBus.Error.NotSupported"},
      {object + "1", "org.a11y.atspi.Action", "DoAction", g_variant_new("(i)", 0),
       "org.freedesktop.DBus.Error.NotSupported"},
      {object + "3", "org.a11y.atspi.Action", "DoAction", g_variant_new("(i)", 0), "(true,)"},
      {object + "999", "org.a11y.atspi.Accessible", "GetState", nullptr, "([uint32 64, 0],)"},
      {object + "999", "org.a11y.atspi.Accessible", "GetRole", nullptr,
       "org.freedesktop.DBus.Error.UnknownObject"},
      {object + "99999999999999999999", "org.a11y.atspi.Accessible", "GetRole", nullptr,
       "org.freedesktop.DBus.Error.UnknownMethod"},
      {object + "abc", "org.a11y.atspi.Accessible", "GetRole", nullptr,
       "org.freedesktop.DBus.Error.UnknownMethod"},
      {kRoot, "org.freedesktop.DBus.Properties", "Get",
       g_variant_new("(ss)", "org.a11y.atspi.Accessible", "Nope"),
       "org.freedesktop.DBus.Error.InvalidArgs"},
      {kRoot, "org.freedesktop.DBus.Properties", "Set",
       g_variant_new("(ssv)", "org.a11y.atspi.Application", "Id", g_variant_new_string("x")),
       "org.freedesktop.DBus.Error.InvalidArgs"},
      {kRoot, "org.freedesktop.DBus.Properties", "Set",
       g_variant_new("(ssv)", "org.a11y.atspi.Application", "Id", g_variant_new_int32(7)), "()"},
      {kRoot, "org.freedesktop.DBus.Properties", "Get",
       g_variant_new("(ss)", "org.a11y.atspi.Application", "Id"), "(<7>,)"},
      {"/org/a11y/atspi/cache", "org.a11y.atspi.Cache", "GetItems", nullptr, ""},
  };
  // Asked from a thread of the test's: the main queue, where the answers are made, runs here.
  std::atomic<bool> done{false};
  std::vector<std::string> answers(questions.size());
  std::thread asking([&] {
    for (std::size_t i = 0; i < questions.size(); ++i) {
      const Question& q = questions[i];
      GError* error = nullptr;
      GVariant* reply = g_dbus_connection_call_sync(
          client.connection(), app.c_str(), q.path.c_str(), q.interface, q.method, q.parameters,
          nullptr, G_DBUS_CALL_FLAGS_NONE, 10'000, nullptr, &error);
      if (reply) {
        gchar* text = g_variant_print(reply, TRUE);
        answers[i] = text;
        g_free(text);
        g_variant_unref(reply);
      } else {
        gchar* name = g_dbus_error_get_remote_error(error);
        answers[i] = name ? name : error->message;
        g_free(name);
        g_clear_error(&error);
      }
    }
    done = true;
    loop_->post([] {});
  });
  const bool answered = waitFor([&] { return done.load(); });
  asking.join();
  ASSERT_TRUE(answered);
  for (std::size_t i = 0; i < questions.size(); ++i) {
    SCOPED_TRACE(questions[i].path + " " + questions[i].method);
    if (questions[i].answer.empty()) {
      // The cache: an item for the application and for each element.
      EXPECT_NE(answers[i].find("'Q?'"), std::string::npos) << answers[i];
    } else {
      EXPECT_EQ(answers[i], questions[i].answer);
    }
  }
  EXPECT_EQ(tree_->pressed, (std::vector<std::uint64_t>{3}));

  // A flood while the main queue is busy: 256 questions wait for it, the rest hear "busy" at once.
  constexpr int kFlood = 1000;
  std::mutex mu;
  std::condition_variable cv;
  int replies = 0, busy = 0;
  bool flooded = false;
  std::thread flooding([&] {
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);
    struct Ask {
      std::mutex* mu;
      std::condition_variable* cv;
      int* replies;
      int* busy;
    } ask{&mu, &cv, &replies, &busy};
    for (int i = 0; i < kFlood; ++i) {
      g_dbus_connection_call(
          client.connection(), app.c_str(), (object + "2").c_str(), "org.a11y.atspi.Accessible",
          "GetState", nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, 30'000, nullptr,
          [](GObject* source, GAsyncResult* result, gpointer data) {
            auto* a = static_cast<Ask*>(data);
            GError* error = nullptr;
            GVariant* reply =
                g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
            std::lock_guard lock(*a->mu);
            ++*a->replies;
            if (reply) g_variant_unref(reply);
            if (error && g_strrstr(error->message, "busy")) ++*a->busy;
            g_clear_error(&error);
            a->cv->notify_all();
          },
          &ask);
    }
    for (;;) {
      {
        std::lock_guard lock(mu);
        if (replies == kFlood) break;
      }
      g_main_context_iteration(context, TRUE);
    }
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
    std::lock_guard lock(mu);
    flooded = true;
    loop_->post([] {});
  });
  {
    std::unique_lock lock(mu);
    EXPECT_TRUE(
        cv.wait_for(lock, std::chrono::seconds(20), [&] { return replies >= kFlood - 256; }))
        << replies << " replies";
    EXPECT_EQ(busy, kFlood - 256);
  }
  const bool drained = waitFor([&] {
    std::lock_guard lock(mu);
    return flooded;
  });
  flooding.join();
  EXPECT_TRUE(drained);
  EXPECT_EQ(busy, kFlood - 256);
  EXPECT_TRUE(log_.lines().empty()) << ::testing::PrintToString(log_.lines());
}

}  // namespace
}  // namespace quorvia::testing
