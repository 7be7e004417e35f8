// Notifications with answer buttons on the desktop: pushes shown through the
// freedesktop Notifications service of a private session bus, and the user's
// choice reaching the application delegate and, through the SDK, the poll
// service on loopback.

#include <gio/gio.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <thread>

#include "platform/push/NotificationActions.h"
#include "platform/push/RemoteNotifications.h"
#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/Application.h"
#include "platform/ApplicationDelegateRuntime.h"
#include "quorvia/platform/NotificationPresenter.h"
#include "platform/Runtime.h"
#include "sdk/BannerController.h"
#include "sdk/CategoriesManager.h"
#include "sdk/SDKState.h"
#include "support/ChildProcess.h"
#include "support/LoopbackServer.h"
#include "support/PrivateBus.h"
#include "support/PlatformTest.h"
#include "ui/QVNotificationView.h"

namespace quorvia::testing {
namespace {

using platform::Application;
using platform::NotificationPresenter;
using platform::Value;

constexpr const char* kPath = "/org/freedesktop/Notifications";
constexpr const char* kInterface = "org.freedesktop.Notifications";

struct NotifyCall {
  std::uint32_t id = 0;
  std::string sender;  // the caller's unique bus name
  std::string appName, body;
  std::vector<std::string> actions;  // identifier, label, identifier, label...
};

/// A client of the bus. As the test's notification service (`own`) it owns
/// the service's name and, on a thread of its own, records every Notify and
/// CloseNotification, running `changed` after each; otherwise it is an
/// impostor that only emits the service's signals.
class BusPeer {
 public:
  BusPeer(const std::string& address, bool own, std::function<void()> changed = {})
      : changed_(std::move(changed)),
        connection_(g_dbus_connection_new_for_address_sync(
            address.c_str(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, nullptr)) {
    if (!connection_ || !own) return;
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(
        "<node><interface name='org.freedesktop.Notifications'><method name='Notify'>"
        "<arg type='s'/><arg type='u'/><arg type='s'/><arg type='s'/><arg type='s'/>"
        "<arg type='as'/><arg type='a{sv}'/><arg type='i'/><arg type='u' direction='out'/>"
        "</method><method name='CloseNotification'><arg type='u'/></method></interface></node>",
        nullptr);
    static const GDBusInterfaceVTable vtable = {&BusPeer::onCall, nullptr, nullptr, {}};
    // Calls go to the context that is the thread's default at registration.
    g_main_context_push_thread_default(context_);
    g_dbus_connection_register_object(connection_, kPath, node->interfaces[0], &vtable, this,
                                      nullptr, nullptr);
    g_main_context_pop_thread_default(context_);
    g_dbus_node_info_unref(node);
    callBus("RequestName", g_variant_new("(su)", kInterface, 4u));
    thread_ = std::thread([this] { g_main_loop_run(loop_); });
  }
  ~BusPeer() {
    if (thread_.joinable()) {
      // A source, not g_main_loop_quit(): a quit before the loop runs is lost.
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
    if (connection_) g_dbus_connection_close_sync(connection_, nullptr, nullptr);
    if (connection_) g_object_unref(connection_);
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
  }

  std::vector<NotifyCall> calls() const {
    std::lock_guard lock(mu_);
    return calls_;
  }
  std::vector<std::uint32_t> closed() const {
    std::lock_guard lock(mu_);
    return closed_;
  }
  /// Emits one of the service's signals (`parameters` is consumed if floating)
  /// to `destination` or everyone, then makes a round trip to the bus, so that
  /// the bus has routed it before anything the caller does next.
  void emit(const char* member, GVariant* parameters, const char* destination = nullptr) {
    g_dbus_connection_emit_signal(connection_, destination, kPath, kInterface, member, parameters,
                                  nullptr);
    callBus("GetId", nullptr);
  }

 private:
  void callBus(const char* method, GVariant* parameters) {
    GVariant* reply = g_dbus_connection_call_sync(
        connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        method, parameters, nullptr, G_DBUS_CALL_FLAGS_NONE, 10'000, nullptr, nullptr);
    if (reply) g_variant_unref(reply);
  }

  static void onCall(GDBusConnection*, const gchar* sender, const gchar*, const gchar*,
                     const gchar* method, GVariant* parameters, GDBusMethodInvocation* invocation,
                     gpointer data) {
    auto* self = static_cast<BusPeer*>(data);
    std::unique_lock lock(self->mu_);
    if (std::string_view(method) == "CloseNotification") {
      guint32 id = 0;
      g_variant_get(parameters, "(u)", &id);
      self->closed_.push_back(id);
      g_dbus_method_invocation_return_value(invocation, nullptr);
    } else {
      const gchar *appName, *body;
      GVariantIter* actions = nullptr;
      g_variant_get(parameters, "(&su&s&s&sasa{sv}i)", &appName, nullptr, nullptr, nullptr, &body,
                    &actions, nullptr, nullptr);
      NotifyCall call{self->nextId_++, sender, appName, body, {}};
      for (const gchar* action; g_variant_iter_next(actions, "&s", &action);)
        call.actions.emplace_back(action);
      g_variant_iter_free(actions);
      // Answered before it is recorded: a signal the test emits once it sees
      // the call then follows the answer on the bus, as a real server's would.
      g_dbus_method_invocation_return_value(invocation, g_variant_new("(u)", call.id));
      self->calls_.push_back(std::move(call));
    }
    lock.unlock();
    self->changed_();
  }

  const std::function<void()> changed_;
  GMainContext* const context_ = g_main_context_new();
  GMainLoop* const loop_ = g_main_loop_new(context_, FALSE);
  GDBusConnection* const connection_;
  std::thread thread_;
  mutable std::mutex mu_;
  std::vector<NotifyCall> calls_;
  std::vector<std::uint32_t> closed_;
  std::uint32_t nextId_ = 1;
};

Value pollPush(const std::string& alert, const std::optional<std::string>& category) {
  Value aps = {{"alert", alert}};
  if (category) aps["category"] = *category;
  return {{"aps", aps},
          {"poll",
           {{"id", 7}, {"question", alert}, {"options", {{{"text", "Yes"}}, {{"text", "No"}}}}}}};
}

void allowAlerts(std::uint32_t types = 7, bool withCategories = true) {
  Application::sharedApplication().setCurrentUserNotificationSettings(
      platform::NotificationSettings::settingsForTypes(
          types, withCategories ? std::optional(CategoriesManager().categories()) : std::nullopt));
}

class NotificationsTest : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    // Lines come from the presenter's thread: each wakes the main queue, so
    // that a wait for a line ends when it comes.
    log_.onLine = [loop = loop_] { loop->post([] {}); };
    bus_ = std::make_unique<PrivateBus>(dataDir_ / "bus");
    ASSERT_FALSE(bus_->address.empty()) << "dbus-daemon did not start";
    ::setenv("DBUS_SESSION_BUS_ADDRESS", bus_->address.c_str(), 1);
    allowAlerts();  // with the SDK's six categories
  }
  void TearDown() override {
    env_->setNotificationPresenter(nullptr);
    presenter_.reset();  // joins its thread
    drain();
    service_.reset();
    bus_.reset();
    PlatformTest::TearDown();
  }

  void start(bool withService = true) {
    if (withService) {
      service_ =
          std::make_unique<BusPeer>(bus_->address, true, [loop = loop_] { loop->post([] {}); });
    }
    presenter_ = platform::makeFreedesktopNotificationPresenter();
    env_->setNotificationPresenter(presenter_);
  }
  bool waitFor(const std::function<bool()>& done) {
    return loop_->runUntil(done, std::chrono::seconds(20));
  }
  NotifyCall waitForNotify(std::size_t n) {
    EXPECT_TRUE(waitFor([&] { return service_->calls().size() >= n; }))
        << "no Notify " << n << "; log: " << ::testing::PrintToString(log_.lines());
    const auto calls = service_->calls();
    return calls.size() >= n ? calls[n - 1] : NotifyCall{};
  }
  /// A host delegate that implements `selectors` by counting calls, with the SDK started.
  void startSDKWithHost(const std::string& name, std::vector<std::string_view> selectors) {
    auto cls = platform::Class::create(name);
    for (auto selector : selectors) {
      platform::class_addMethod(
          cls.get(), selector,
          [this](platform::Object&, const platform::MessageArguments&) { ++hostCalls_; },
          platform::applicationDelegateTypeEncoding(selector));
    }
    platform::setDelegateObject(Application::sharedApplication(), std::make_shared<platform::Object>(cls));
    env_->setServiceBaseURL(server_.baseURL());
    QuorviaSDK::initWithAppToken("app", std::nullopt);
  }

  std::unique_ptr<PrivateBus> bus_;
  std::unique_ptr<BusPeer> service_;
  std::shared_ptr<NotificationPresenter> presenter_;
  LoopbackServer server_;
  int hostCalls_ = 0;
};

// A push shows a bubble only while the app is not active and the user allowed
// alerts, and only with an alert. The bubble carries the app's name, the
// alert and one button per action of the category the push names, in the
// category's order, then the bubble's own click; a category that is not
// registered gives no buttons. The last push shows, so the service has seen
// every call before it by then.
TEST_F(NotificationsTest, BubbleOfAnInactiveAppWithTheButtonsOfThePushsCategory) {
  struct Case {
    const char* alert;  // nullptr: none
    std::optional<std::string> category;
    bool active = false, registered = true;
    std::uint32_t types = 7;
    std::vector<std::string> actions = {"default", "Open"};
  };
  const Case cases[] = {
      {"Yes or no?", "Yes.No", false, true, 7, {"Yes", "Yes", "No", "No", "default", "Open"}},
      {"Unknown category", "Unknown.Category"},
      {"No category", std::nullopt},
      {"Unregistered", "Yes.No", false, false},
      {"Active", "Yes.No", true},
      {"Badge and sound only", "Yes.No", false, true, 3},
      {nullptr, "Yes.No"},
      {"Last", std::nullopt},
  };
  start();
  auto& app = Application::sharedApplication();
  EXPECT_FALSE(app.isActive()) << "a desktop app starts inactive";
  std::vector<std::pair<std::string, std::vector<std::string>>> expected, shown;
  for (const Case& c : cases) {
    app.setActive(c.active);
    allowAlerts(c.types, c.registered);
    Value push = pollPush(c.alert ? c.alert : "", c.category);
    if (!c.alert) push["aps"].erase("alert");
    platform::deliverRemoteNotification(push);
    const bool shows = c.alert && !c.active && c.types == 7;
    if (shows) expected.emplace_back(c.alert, c.actions);
  }
  waitForNotify(expected.size());
  for (const auto& call : service_->calls()) {
    EXPECT_EQ(call.appName, "quorvia");
    shown.emplace_back(call.body, call.actions);
  }
  EXPECT_EQ(shown, expected);
}

// What the bus sends back is trusted only from the service's owner, for a
// notification of this app, with one of its actions, once.
TEST_F(NotificationsTest, OnlyTheServiceAnswersForItsBubblesOnce) {
  struct Signal {
    std::string key;
    std::string type = "(us)";  // "(uu)": NotificationClosed; otherwise ActionInvoked
    std::uint32_t idOffset = 0;
    int from = 0;  // 0: the service; 1: another client, to the app; 2: another client, to all
  };
  struct Case {
    const char* name;
    std::vector<Signal> signals;
    std::vector<std::string> delivered;  // identifiers reaching the handler for the bubble
  };
  const Case cases[] = {
      {"genuine press", {{"Yes"}}, {"Yes"}},
      {"bubble clicked", {{"default"}}, {"default"}},
      {"pressed twice", {{"Yes"}, {"No"}}, {"Yes"}},
      {"another sender, sent to the app", {{"Yes", "(us)", 0, 1}}, {}},
      {"another sender, broadcast", {{"Yes", "(us)", 0, 2}}, {}},
      {"unknown id", {{"Yes", "(us)", 1000}}, {}},
      {"unknown action", {{"Maybe"}}, {}},
      {"huge action", {{std::string(1 << 20, 'Y')}}, {}},
      {"wrong types", {{"Yes", "(ss)"}}, {}},
      {"closed first", {{"", "(uu)"}, {"Yes"}}, {}},
  };
  start();
  BusPeer impostor(bus_->address, false);
  auto seen = std::make_shared<std::vector<std::pair<std::string, Value>>>();
  presenter_->setActionHandler(
      [seen](std::string identifier, Value payload) { seen->emplace_back(identifier, payload); });
  const std::vector<NotificationPresenter::Button> buttons = {{"Yes", "Yes"}, {"No", "No"}};
  for (std::size_t i = 0; i <= std::size(cases); ++i)
    presenter_->present({"quorvia", "Bubble", buttons, Value{{"bubble", i}}});
  waitForNotify(std::size(cases) + 1);
  const std::vector<NotifyCall> bubbles = service_->calls();
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    for (const Signal& signal : cases[i].signals) {
      const std::uint32_t id = bubbles[i].id + signal.idOffset;
      GVariant* parameters = signal.type == "(uu)" ? g_variant_new("(uu)", id, 2u)
                             : signal.type == "(ss)"
                                 ? g_variant_new("(ss)", std::to_string(id).c_str(), "Yes")
                                 : g_variant_new("(us)", id, signal.key.c_str());
      (signal.from == 0 ? *service_ : impostor)
          .emit(signal.type == "(uu)" ? "NotificationClosed" : "ActionInvoked", parameters,
                signal.from == 1 ? bubbles[i].sender.c_str() : nullptr);
    }
  }
  // A genuine press on the last bubble comes after everything before it.
  service_->emit("ActionInvoked", g_variant_new("(us)", bubbles.back().id, "No"));
  ASSERT_TRUE(waitFor([&] {
    return !seen->empty() && seen->back().second == Value{{"bubble", std::size(cases)}};
  }));
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    std::vector<std::string> delivered;
    for (const auto& [identifier, payload] : *seen)
      if (payload == Value{{"bubble", i}}) delivered.push_back(identifier);
    EXPECT_EQ(delivered, cases[i].delivered) << cases[i].name;
  }
}

// Without a session bus, or without a notification service on it, one line
// says so, however often asked. Whatever the push carries, the bus gets valid
// UTF-8 of bounded size, and a button whose identifier could not come back
// intact is left out. Only the newest 64 bubbles keep answering; an older one
// is closed on the desktop.
TEST_F(NotificationsTest, LinesTextsAndLiveBubblesAreBounded) {
  const std::string nowhere = "unix:path=" + (dataDir_ / "no-bus").string();
  for (const std::string& address : {nowhere, bus_->address}) {
    ::setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    log_.clear();
    start(/*withService=*/false);
    for (int i = 0; i < 3; ++i) presenter_->present({"quorvia", "Nobody", {}, Value::object()});
    ASSERT_TRUE(waitFor([&] { return !log_.lines().empty(); }));
    presenter_->present({"quorvia", "Nobody", {}, Value::object()});
    env_->setNotificationPresenter(nullptr);
    presenter_.reset();  // joins its thread
    ASSERT_EQ(log_.lines().size(), 1u) << address;
    EXPECT_TRUE(log_.lines()[0].ends_with("; desktop notifications are off"));
  }
  start();
  std::string body(1 << 20, 'x');
  body[10] = '\0';
  body[11] = '\xff';
  body[4095] = '\xe2';  // a character cut by the limit
  presenter_->present({std::string("app\xc3", 4),
                       body,
                       {{"default", "Clash"}, {std::string("bad\xff"), "Bad"}, {"Yes", "Y\xff"}},
                       Value::object()});
  const NotifyCall call = waitForNotify(1);
  EXPECT_LE(call.body.size(), 4096u);
  EXPECT_GT(call.body.size(), 4000u);
  for (const std::string* text : {&call.appName, &call.body})
    EXPECT_TRUE(g_utf8_validate(text->data(), static_cast<gssize>(text->size()), nullptr));
  ASSERT_EQ(call.actions.size(), 4u);
  EXPECT_EQ(call.actions[0], "Yes");
  EXPECT_EQ(call.actions[2], "default");

  for (int i = 0; i < 64; ++i) presenter_->present({"quorvia", "More", {}, Value::object()});
  ASSERT_TRUE(waitFor([&] { return !service_->closed().empty(); }));
  EXPECT_EQ(service_->closed(), std::vector<std::uint32_t>{call.id});
  EXPECT_EQ(service_->calls().size(), 65u);
}

// The bubble clicked: the SDK opens the banner expanded; a host with its own
// action callback is not called, so nobody completes the platform's call and
// the platform says so after its 30 s. Then a host that lacks the callback is
// intercepted: "Yes" pressed on a bubble posts one reply "Yes", and the reply
// completes the platform's call, once.
TEST_F(NotificationsTest, AnswersFromTheBubbleReachTheSDK) {
  const std::string notCalled =
      "QuorviaSDK: a notification action's completion handler was not called within 30 seconds";
  const std::string completed = "QuorviaSDK: Calling completionHandler for " +
                                std::string(platform::kHandleActionWithResponseInfoSelector);
  start();
  startSDKWithHost("Host", {platform::kHandleActionWithResponseInfoSelector});
  // Shown as bubbles only, as for pushes that arrived while the app was away.
  platform::presentRemoteNotification(pollPush("Coffee?", "Yes.No"));
  service_->emit("ActionInvoked", g_variant_new("(us)", waitForNotify(1).id, "default"));
  auto& banner = *sdk::SDKState::shared().banner;
  ASSERT_TRUE(waitFor([&] { return banner.presentedPollView() != nullptr; }));
  EXPECT_TRUE(banner.presentedPollView()->showOptions());
  EXPECT_EQ(hostCalls_, 0);
  advance(29.9);
  EXPECT_EQ(log_.count(notCalled), 0);
  advance(0.2);
  EXPECT_EQ(log_.count(notCalled), 1);

  startSDKWithHost("BareHost", {});
  log_.clear();
  platform::presentRemoteNotification(pollPush("Tea?", "Yes.No"));
  service_->emit("ActionInvoked", g_variant_new("(us)", waitForNotify(2).id, "Yes"));
  ASSERT_TRUE(waitFor([&] { return log_.count(completed) > 0; })) << "the reply completed";
  std::vector<std::string> replies;
  for (const auto& request : server_.requests())
    if (request.method == "POST" && request.target == "/polls/7/replies/")
      replies.push_back(request.body);
  EXPECT_EQ(replies, std::vector<std::string>{"reply_text=Yes"});
  advance(31);
  EXPECT_EQ(log_.count(completed), 1);
  for (const auto& line : log_.lines())
    EXPECT_FALSE(line.starts_with("QuorviaSDK: a notification"));
}

}  // namespace
}  // namespace quorvia::testing
