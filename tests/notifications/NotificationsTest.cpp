// Notifications with answer buttons on the desktop: pushes shown through the
// freedesktop Notifications service of a private session bus, and the user's
// choice reaching the application delegate and, through the SDK, the poll
// service on loopback.

#include <gio/gio.h>

#include <cstdlib>

#include "support/LoopbackServer.h"
#include "notifications/SessionBus.h"
#include "platform/push/NotificationActions.h"
#include "platform/push/RemoteNotifications.h"
#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/Application.h"
#include "quorvia/platform/ApplicationDelegate.h"
#include "quorvia/platform/NotificationCenter.h"
#include "quorvia/platform/NotificationPresenter.h"
#include "quorvia/platform/Runtime.h"
#include "sdk/BannerController.h"
#include "sdk/CategoriesManager.h"
#include "sdk/SDKState.h"
#include "support/PlatformTest.h"
#include "ui/QVNotificationView.h"

namespace quorvia::testing {
namespace {

using platform::Application;
using platform::MessageArguments;
using platform::NotificationPresenter;
using platform::Value;

constexpr const char* kNotCalledLine =
    "QuorviaSDK: a notification action's completion handler was not called within 30 seconds";
constexpr const char* kCalledAgainLine =
    "QuorviaSDK: a notification action's completion handler was called again; ignored";
constexpr const char* kOffSuffix = "; desktop notifications are off";

Value pollPush(const std::string& alert, const std::optional<std::string>& category) {
  Value aps = {{"alert", alert}};
  if (category) aps["category"] = *category;
  return {{"aps", aps},
          {"poll",
           {{"id", 7}, {"question", alert}, {"options", {{{"text", "Yes"}}, {{"text", "No"}}}}}}};
}

class NotificationsTest : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    // Lines come from the presenter's thread: each wakes the main queue, so
    // that a wait for a line ends when it comes.
    env_->setLogSink([this](std::string_view line) {
      {
        std::lock_guard lock(linesMu_);
        lines_.emplace_back(line);
      }
      loop_->post([] {});
    });
    bus_ = std::make_unique<PrivateBus>(dataDir_ / "bus");
    ASSERT_FALSE(bus_->address().empty()) << "dbus-daemon did not start";
    ::setenv("DBUS_SESSION_BUS_ADDRESS", bus_->address().c_str(), 1);
    // The user allowed alerts and the SDK's six categories are registered.
    Application::sharedApplication().setCurrentUserNotificationSettings(
        platform::NotificationSettings::settingsForTypes(7, CategoriesManager().categories()));
  }
  void TearDown() override {
    env_->setNotificationPresenter(nullptr);
    presenter_.reset();  // joins its thread
    drain();
    service_.reset();
    bus_.reset();
    PlatformTest::TearDown();
  }

  void startService() {
    service_ = std::make_unique<NotificationService>(bus_->address(),
                                                     [loop = loop_] { loop->post([] {}); });
    ASSERT_TRUE(service_->owns()) << "the test's service does not own the name";
  }
  void usePresenter() {
    presenter_ = platform::makeFreedesktopNotificationPresenter();
    env_->setNotificationPresenter(presenter_);
  }
  bool waitFor(const std::function<bool()>& done) {
    return loop_->runUntil(done, std::chrono::seconds(20));
  }
  /// Waits for the `n`th Notify call and returns it.
  NotifyCall waitForNotify(std::size_t n) {
    EXPECT_TRUE(waitFor([&] { return service_->calls().size() >= n; }))
        << "no Notify " << n << "; log: " << ::testing::PrintToString(lines());
    const auto calls = service_->calls();
    return calls.size() >= n ? calls[n - 1] : NotifyCall{};
  }
  std::vector<std::string> lines() const {
    std::lock_guard lock(linesMu_);
    return lines_;
  }
  int count(const std::string& line) const {
    const auto all = lines();
    return static_cast<int>(std::count(all.begin(), all.end(), line));
  }
  void clearLines() {
    std::lock_guard lock(linesMu_);
    lines_.clear();
  }
  int offLines() const {
    int n = 0;
    for (const auto& line : lines()) {
      n += line.starts_with("QuorviaSDK: ") && line.ends_with(kOffSuffix);
    }
    return n;
  }

  std::unique_ptr<PrivateBus> bus_;
  std::unique_ptr<NotificationService> service_;
  std::shared_ptr<NotificationPresenter> presenter_;
  mutable std::mutex linesMu_;
  std::vector<std::string> lines_;
};

// Focus changes post the platform's activity notifications, once per change;
// a desktop app starts inactive.
TEST_F(NotificationsTest, ActivityPostsOncePerChange) {
  std::vector<std::string> posted;
  auto& center = platform::NotificationCenter::defaultCenter();
  for (const char* name : {platform::UIApplicationDidBecomeActiveNotification,
                           platform::UIApplicationWillResignActiveNotification}) {
    center.addObserver(name, [&posted](std::string_view n) { posted.emplace_back(n); });
  }
  auto& app = Application::sharedApplication();
  EXPECT_FALSE(app.isActive());
  for (const bool active : {false, true, true, false, false, true}) app.setActive(active);
  EXPECT_TRUE(app.isActive());
  EXPECT_EQ(posted, (std::vector<std::string>{platform::UIApplicationDidBecomeActiveNotification,
                                              platform::UIApplicationWillResignActiveNotification,
                                              platform::UIApplicationDidBecomeActiveNotification}));
}

// The bubble carries the app's name, the alert and one button per action of
// the category the push names, in the category's order, then the bubble's own
// click; a category that is not registered gives no buttons.
TEST_F(NotificationsTest, ButtonsAreTheActionsOfThePushsCategory) {
  struct Case {
    std::optional<std::string> category;
    std::vector<std::string> actions;
  };
  const Case cases[] = {
      {"Yes.No", {"Yes", "Yes", "No", "No", "default", "Open"}},
      {"No.Yes", {"No", "No", "Yes", "Yes", "default", "Open"}},
      {"A.B", {"A", "A", "B", "B", "default", "Open"}},
      {"emoji1.emoji2",
       {"\u261D\uFE0F", "\u261D\uFE0F", "\u270C\uFE0F", "\u270C\uFE0F", "default", "Open"}},
      {"emojiA.emojiB",
       {"\U0001F170\uFE0F", "\U0001F170\uFE0F", "\U0001F171\uFE0F", "\U0001F171\uFE0F", "default",
        "Open"}},
      {"thumbsup.thumbsdown",
       {"\U0001F44D", "\U0001F44D", "\U0001F44E", "\U0001F44E", "default", "Open"}},
      {"Unknown.Category", {"default", "Open"}},
      {std::nullopt, {"default", "Open"}},
  };
  startService();
  usePresenter();
  std::size_t n = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.category.value_or("(none)"));
    platform::deliverRemoteNotification(pollPush("Coffee or tea?", c.category));
    const NotifyCall call = waitForNotify(++n);
    EXPECT_EQ(call.appName, "quorvia");
    EXPECT_EQ(call.body, "Coffee or tea?");
    EXPECT_EQ(call.actions, c.actions);
  }
  // Registered settings without the SDK's categories: the bubble, no buttons.
  Application::sharedApplication().setCurrentUserNotificationSettings(
      platform::NotificationSettings::settingsForTypes(7, std::nullopt));
  platform::deliverRemoteNotification(pollPush("Unregistered", "Yes.No"));
  EXPECT_EQ(waitForNotify(++n).actions, (std::vector<std::string>{"default", "Open"}));
}

// A bubble shows only while the app is not active and the user allowed
// alerts, and only for a push with an alert. Each case is followed by a push
// that does show, so the service has seen the case's call (if any) by then.
TEST_F(NotificationsTest, BubbleOnlyWhileInactiveWithAlertPermission) {
  struct Case {
    const char* name;
    bool active;
    std::uint32_t types;
    bool withAlert;
    bool shown;
  };
  const Case cases[] = {
      {"inactive, alerts allowed", false, 7, true, true},
      {"active", true, 7, true, false},
      {"badge and sound only", false, 3, true, false},
      {"no alert in the push", false, 7, false, false},
  };
  startService();
  usePresenter();
  auto& app = Application::sharedApplication();
  std::vector<std::string> expected;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    app.setActive(c.active);
    app.setCurrentUserNotificationSettings(platform::NotificationSettings::settingsForTypes(
        c.types, CategoriesManager().categories()));
    Value push = pollPush(c.name, "Yes.No");
    if (!c.withAlert) push["aps"].erase("alert");
    platform::deliverRemoteNotification(push);
    if (c.shown) expected.push_back(c.name);

    app.setActive(false);
    app.setCurrentUserNotificationSettings(
        platform::NotificationSettings::settingsForTypes(7, CategoriesManager().categories()));
    const std::string sentinel = std::string("after ") + c.name;
    platform::deliverRemoteNotification(pollPush(sentinel, "Yes.No"));
    expected.push_back(sentinel);
    waitForNotify(expected.size());
  }
  std::vector<std::string> bodies;
  for (const auto& call : service_->calls()) bodies.push_back(call.body);
  EXPECT_EQ(bodies, expected);
}

// What the bus sends back is trusted only from the service's owner, for a
// notification of this app, with one of its actions, once. Each case ends
// with a genuine press on a second bubble, so everything before it has been
// handled when that press arrives.
TEST_F(NotificationsTest, OnlyTheServiceAnswersForItsBubblesOnce) {
  struct Case {
    const char* name;
    std::function<void(NotificationService&, Impostor&, const NotifyCall&)> send;
    std::vector<std::string> delivered;  // identifiers reaching the handler for the bubble
  };
  const std::string huge(1 << 20, 'Y');
  const Case cases[] = {
      {"genuine press",
       [](auto& s, auto&, auto& c) { s.emit("ActionInvoked", g_variant_new("(us)", c.id, "Yes")); },
       {"Yes"}},
      {"bubble clicked",
       [](auto& s, auto&, auto& c) {
         s.emit("ActionInvoked", g_variant_new("(us)", c.id, "default"));
       },
       {"default"}},
      {"pressed twice",
       [](auto& s, auto&, auto& c) {
         s.emit("ActionInvoked", g_variant_new("(us)", c.id, "Yes"));
         s.emit("ActionInvoked", g_variant_new("(us)", c.id, "No"));
       },
       {"Yes"}},
      {"another sender, sent to the app",
       [](auto&, auto& i, auto& c) {
         i.emit("ActionInvoked", g_variant_new("(us)", c.id, "Yes"), c.sender.c_str());
       },
       {}},
      {"another sender, broadcast",
       [](auto&, auto& i, auto& c) {
         i.emit("ActionInvoked", g_variant_new("(us)", c.id, "Yes"), nullptr);
       },
       {}},
      {"unknown id",
       [](auto& s, auto&, auto& c) {
         s.emit("ActionInvoked", g_variant_new("(us)", c.id + 1000, "Yes"));
       },
       {}},
      {"huge unknown action",
       [&huge](auto& s, auto&, auto& c) {
         s.emit("ActionInvoked", g_variant_new("(us)", c.id, huge.c_str()));
       },
       {}},
      {"wrong types",
       [](auto& s, auto&, auto& c) {
         s.emit("ActionInvoked", g_variant_new("(ss)", std::to_string(c.id).c_str(), "Yes"));
       },
       {}},
      {"closed first",
       [](auto& s, auto&, auto& c) {
         s.emit("NotificationClosed", g_variant_new("(uu)", c.id, 2u));
         s.emit("ActionInvoked", g_variant_new("(us)", c.id, "Yes"));
       },
       {}},
  };
  startService();
  usePresenter();
  Impostor impostor(bus_->address());
  auto seen = std::make_shared<std::vector<std::pair<std::string, Value>>>();
  presenter_->setActionHandler(
      [seen](std::string identifier, Value payload) { seen->emplace_back(identifier, payload); });
  const std::vector<NotificationPresenter::Button> buttons = {{"Yes", "Yes"}, {"No", "No"}};
  std::size_t n = 0;
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const Case& c = cases[i];
    SCOPED_TRACE(c.name);
    seen->clear();
    presenter_->present({"quorvia", "Bubble", buttons, Value{{"bubble", i}}});
    const NotifyCall bubble = waitForNotify(++n);
    presenter_->present({"quorvia", "Sentinel", buttons, Value{{"sentinel", i}}});
    const NotifyCall sentinel = waitForNotify(++n);
    c.send(*service_, impostor, bubble);
    service_->emit("ActionInvoked", g_variant_new("(us)", sentinel.id, "No"));
    ASSERT_TRUE(waitFor([&] {
      return !seen->empty() && seen->back().second == Value{{"sentinel", i}};
    })) << ::testing::PrintToString(lines())
        << seen->size();
    std::vector<std::string> delivered;
    for (const auto& [identifier, payload] : *seen) {
      if (payload == Value{{"bubble", i}}) delivered.push_back(identifier);
    }
    EXPECT_EQ(delivered, c.delivered);
  }
}

// Whatever the push carries, the bus gets valid UTF-8 of bounded size, and a
// button whose identifier could not come back intact is left out.
TEST_F(NotificationsTest, OutgoingTextIsValidAndBounded) {
  startService();
  usePresenter();
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
  for (const std::string* text : {&call.appName, &call.body}) {
    EXPECT_TRUE(g_utf8_validate(text->data(), static_cast<gssize>(text->size()), nullptr));
  }
  ASSERT_EQ(call.actions.size(), 4u);
  EXPECT_EQ(call.actions[0], "Yes");
  EXPECT_EQ(call.actions[2], "default");
}

// Without a session bus, or without a notification service on it, the
// presenter says so in one line and shows nothing, however often asked.
TEST_F(NotificationsTest, WithoutServiceOneLogLine) {
  const std::string nowhere = "unix:path=" + (dataDir_ / "no-bus").string();
  for (const std::string& address : {nowhere, bus_->address()}) {
    SCOPED_TRACE(address);
    clearLines();
    ::setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    usePresenter();
    presenter_->present({"quorvia", "First", {}, Value::object()});
    presenter_->present({"quorvia", "Second", {}, Value::object()});
    ASSERT_TRUE(waitFor([&] { return offLines() > 0; }));
    presenter_->present({"quorvia", "Third", {}, Value::object()});
    env_->setNotificationPresenter(nullptr);
    presenter_.reset();
    EXPECT_EQ(offLines(), 1) << ::testing::PrintToString(lines());
    EXPECT_EQ(lines().size(), 1u) << ::testing::PrintToString(lines());
  }
}

// With the SDK intercepting a host that lacks the action callback: "Yes"
// pressed on the bubble posts one reply "Yes", and the reply completes the
// platform's call, once.
TEST_F(NotificationsTest, PressedButtonPostsOneReply) {
  LoopbackServer server;
  ::setenv("QUORVIA_SERVICE_BASE_URL", server.baseURL().c_str(), 1);
  startService();
  usePresenter();
  Application::sharedApplication().setDelegate(
      std::make_shared<platform::Object>(platform::Class::create("BareHost")));
  QuorviaSDK::initWithAppToken("app", std::nullopt);
  platform::deliverRemoteNotification(pollPush("Coffee?", "Yes.No"));
  const NotifyCall call = waitForNotify(1);
  service_->emit("ActionInvoked", g_variant_new("(us)", call.id, "Yes"));
  const std::string completed = std::string("QuorviaSDK: Calling completionHandler for ") +
                                std::string(platform::kHandleActionWithResponseInfoSelector);
  ASSERT_TRUE(waitFor([&] { return count(completed) > 0; })) << "the reply completed";
  std::vector<std::string> replies;
  for (const auto& request : server.requests()) {
    if (request.method == "POST" && request.target == "/polls/7/replies/") {
      replies.push_back(request.body);
    }
  }
  EXPECT_EQ(replies, std::vector<std::string>{"reply_text=Yes"});
  advance(31);
  EXPECT_EQ(count(completed), 1);
  EXPECT_EQ(count(kNotCalledLine), 0);
  EXPECT_EQ(count(kCalledAgainLine), 0);
}

// The bubble clicked: the SDK opens the banner expanded; a host with its own
// action callback is not called, so nobody completes the platform's call and
// the platform says so after its 30 s.
TEST_F(NotificationsTest, ClickedBubbleOpensTheBannerExpanded) {
  LoopbackServer server;
  ::setenv("QUORVIA_SERVICE_BASE_URL", server.baseURL().c_str(), 1);
  startService();
  usePresenter();
  auto cls = platform::Class::create("HostWithActions");
  int hostCalls = 0;
  platform::class_addMethod(
      cls.get(), platform::kHandleActionWithResponseInfoSelector,
      [&hostCalls](platform::Object&, const MessageArguments&) { ++hostCalls; },
      platform::kFourObjectsAndBlockTypeEncoding);
  Application::sharedApplication().setDelegate(std::make_shared<platform::Object>(cls));
  QuorviaSDK::initWithAppToken("app", std::nullopt);
  // Shown as a bubble only, as for a push that arrived while the app was away.
  platform::presentRemoteNotification(pollPush("Coffee?", "Yes.No"));
  const NotifyCall call = waitForNotify(1);
  service_->emit("ActionInvoked", g_variant_new("(us)", call.id, "default"));
  auto& banner = *sdk::SDKState::shared().banner;
  ASSERT_TRUE(waitFor([&] { return banner.presentedPollView() != nullptr; }));
  EXPECT_TRUE(banner.presentedPollView()->showOptions());
  EXPECT_EQ(hostCalls, 0);
  advance(29.9);
  EXPECT_EQ(count(kNotCalledLine), 0);
  advance(0.2);
  EXPECT_EQ(count(kNotCalledLine), 1);
}

}  // namespace
}  // namespace quorvia::testing
