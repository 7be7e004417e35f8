// Start-up: the release gate, the launch payload, the shared instance, the
// notification categories in the host's settings, and the poll model.

#include <set>
#include <thread>

#include "platform/ApplicationRecords.h"
#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/Error.h"
#include "quorvia/platform/NotificationCenter.h"
#include "sdk/CategoriesManager.h"
#include "sdk/SDKState.h"
#include "service/QVModelPoll.h"
#include "support/FakeTransport.h"
#include "support/PlatformTest.h"
#include "ui/QVNotificationView.h"

namespace quorvia {
namespace {

using platform::CategorySet;
using platform::Value;

class StartupTest : public testing::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    transport_ = testing::FakeTransport::install();
  }
  // Poll fetches sent so far: all of them, or those of one app token.
  int fetches(const std::optional<std::string>& app = std::nullopt) const {
    int n = 0;
    for (const auto& line : transport_->requestLines())
      n += app ? line == "GET /apps/" + *app + "/polls/" : line.starts_with("GET /apps/");
    return n;
  }
  platform::Application& app() { return platform::Application::sharedApplication(); }
  std::shared_ptr<testing::FakeTransport> transport_;
};

TEST_F(StartupTest, SharedInstanceIsCreatedOnceAcrossThreads) {
  std::vector<std::thread> threads;
  std::vector<QuorviaSDK*> seen(8);
  for (int i = 0; i < 8; ++i)
    threads.emplace_back([&, i] { seen[i] = QuorviaSDK::sharedInstance().get(); });
  for (auto& t : threads) t.join();
  EXPECT_EQ(std::set<QuorviaSDK*>(seen.begin(), seen.end()).size(), 1u);
  EXPECT_EQ(platform::ApplicationRecords::remoteNotificationRegistrationCount(app()), 1);
  EXPECT_TRUE(QuorviaSDK::sharedInstance()->debug()) << "logging is on from creation";
  EXPECT_TRUE(sdk::SDKState::shared().interception.addedMethods().empty());
  // Becoming active fetches, once: a second observer would fetch twice.
  const int before = fetches();
  platform::NotificationCenter::defaultCenter().postNotificationName(
      platform::UIApplicationDidBecomeActiveNotification);
  EXPECT_EQ(fetches(), before + 1);
}

TEST_F(StartupTest, ReleaseGateReadsTheLeadingInteger) {
  // Integer comparison: "10.3" passes where a text comparison would fail it.
  const std::pair<const char*, bool> cases[] = {{"7.1.2", false}, {"7.1", false}, {"8.0", true},
                                                {"8.4.1", true},  {"10.3", true}, {"abc", false},
                                                {" 9.0", true},   {"-8", false}};
  int n = 0;
  for (const auto& [version, runs] : cases) {
    SCOPED_TRACE(version);
    env_->setSystemVersion(version);
    const auto before = sdk::SDKState::currentAppToken();
    const std::string token = "token-" + std::to_string(n++);
    log_.clear();
    QuorviaSDK::initWithAppToken(token, std::nullopt);
    EXPECT_EQ(sdk::SDKState::currentAppToken(), runs ? token : before);
    EXPECT_EQ(fetches(token), runs ? 1 : 0);
    EXPECT_EQ(log_.contains("QuorviaSDK: Initialized SDK with app token: " + token), runs);
    EXPECT_EQ(log_.contains("QuorviaSDK: iOS lower than 8.0, SDK will not run."), !runs);
  }
  EXPECT_EQ(QuorviaSDK::sharedInstance()->appToken(), std::nullopt)
      << "the property stays unset; the token lives process-wide";
}

TEST_F(StartupTest, LaunchPayloadDecidesBetweenPresentingAndFetching) {
  constexpr auto kKey = UIApplicationLaunchOptionsRemoteNotificationKey;
  const std::tuple<const char*, std::optional<Value>, bool> cases[] = {
      {"no launch options", std::nullopt, false},
      {"options without a payload", Value{{"other", 1}}, false},
      {"payload without poll", Value{{kKey, {{"aps", Value::object()}}}}, false},
      {"payload that is not a dictionary", Value{{kKey, "junk"}}, false},
      {"payload with poll", Value{{kKey, {{"poll", {{"id", 7}, {"question", "Q?"}}}}}}, true},
  };
  const auto banner = [] { return sdk::SDKState::shared().banner->presentedPollView(); };
  for (const auto& [name, launchOptions, presents] : cases) {
    SCOPED_TRACE(name);
    const int fetchesBefore = fetches();
    log_.clear();
    QuorviaSDK::initWithAppToken("A", launchOptions, false);
    EXPECT_EQ(
        log_.contains("QuorviaSDK: Detected poll in notification upon app launch. Presenting."),
        presents);
    EXPECT_EQ(fetches() - fetchesBefore, presents ? 0 : 1);
    advance(0.099);
    EXPECT_EQ(banner(), nullptr) << "nothing before 0.1 s";
    advance(0.001);
    ASSERT_EQ(banner() != nullptr, presents);
    if (presents) {
      EXPECT_TRUE(banner()->showOptions()) << "expanded";
      EXPECT_EQ(platform::describe(banner()->poll()->objectId()), "7");
    }
  }
}

// The identifiers come back as replies, so they must be these exact code
// points, in this button order.
TEST(Categories, SixCategoriesWithTheirButtonsInOrder) {
  using Context = platform::UserNotificationActionContext;
  const std::vector<std::vector<std::string>> rows = {
      {"Yes.No", "Yes", "No"},
      {"No.Yes", "No", "Yes"},
      {"A.B", "A", "B"},
      {"emoji1.emoji2", "\u261D\uFE0F", "\u270C\uFE0F"},
      {"emojiA.emojiB", "\U0001F170\uFE0F", "\U0001F171\uFE0F"},
      {"thumbsup.thumbsdown", "\U0001F44D", "\U0001F44E"}};
  const CategorySet set = CategoriesManager().categories();
  ASSERT_EQ(set.count(), rows.size());
  for (const auto& row : rows) {
    SCOPED_TRACE(row[0]);
    const platform::NotificationCategory* category = set.categoryWithIdentifier(row[0]);
    ASSERT_NE(category, nullptr);
    std::vector<std::string> buttons = {row[0]};
    for (const auto& action : category->actionsForContext(Context::kDefault)) {
      buttons.push_back(action.identifier());
      EXPECT_EQ(action.title(), action.identifier());
      EXPECT_EQ(action.activationMode(), platform::UserNotificationActivationMode::kBackground);
      EXPECT_FALSE(action.isDestructive() || action.isAuthenticationRequired());
    }
    EXPECT_EQ(buttons, row);
    EXPECT_TRUE(category->actionsForContext(Context::kMinimal).empty());
  }
}

// Start-up adds the library's categories only when alerts are allowed and they
// are missing, with no types; asking for permission registers all three types
// every time, keeping the host's own categories.
TEST_F(StartupTest, CategoriesReachTheNotificationSettings) {
  const CategorySet host{CategoriesManager().createCategoryWithActions({"Go"}, "host")};
  const CategorySet both = host.setByAddingObjectsFromSet(CategoriesManager().categories());
  struct Case {
    const char* name;
    bool ask;  // askUserForPushPermissions rather than start-up
    platform::NotificationSettings current;
    bool registers;
    unsigned types;
    std::optional<CategorySet> expected;
    bool responds = true;
  };
  const std::vector<Case> cases = {
      {"start: badge and sound, no alert", false, {3, host}, false, 0, {}},
      {"start: already holds the library's", false, {7, both}, false, 0, {}},
      {"start: other categories", false, {4, host}, true, 0, both},
      {"start: absent set", false, {4, std::nullopt}, true, 0, std::nullopt},
      {"ask: other categories", true, {7, host}, true, 7, both},
      {"ask: nothing changes, registers anyway", true, {7, both}, true, 7, both},
      {"ask: absent set gives none", true, {7, std::nullopt}, true, 7, std::nullopt},
      {"ask: a platform without the call", true, {7, both}, false, 0, {}, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    app().setCurrentUserNotificationSettings(c.current);
    app().setRespondsToRegisterUserNotificationSettings(c.responds);
    const auto before = app().registeredUserNotificationSettings().size();
    log_.clear();
    if (c.ask) {
      QuorviaSDK::askUserForPushPermissions();
      EXPECT_TRUE(log_.lines().empty());
    } else {
      QuorviaSDK::initWithAppToken("A", std::nullopt, false);
    }
    const auto registered = app().registeredUserNotificationSettings();
    ASSERT_EQ(registered.size() - before, c.registers ? 1u : 0u);
    if (!c.registers) continue;
    EXPECT_EQ(registered.back().types, c.types);
    const auto& got = registered.back().categories;
    EXPECT_TRUE(c.expected ? got && got->isEqualToSet(*c.expected) : !got);
  }
}

// Missing pieces give a poll (a missing id writes a line); malformed shapes
// raise, not swallowed: each caller decides whether to write a line.
TEST_F(StartupTest, PollModelMissingPiecesAreNotErrorsButBadShapesRaise) {
  struct Case {
    const char* name;
    std::optional<Value> dict;
    bool raises;
    int nilIdLines = 0;
    std::size_t options = 0;
  };
  const auto withOptions = [&](Value options) { return Value{{"id", 1}, {"options", options}}; };
  const Case cases[] = {
      {"no id", Value{{"question", "Q"}, {"options", Value::array()}}, false, 1},
      {"no options", Value{{"id", "p1"}}, false},
      {"null id is a value", Value{{"id", nullptr}}, false},
      {"options dictionary without entries", withOptions(Value::object()), false},
      {"option without text", withOptions(Value::array({Value::object()})), false, 0, 1},
      {"nil dictionary", std::nullopt, false, 1},
      {"a poll that is a string", Value("poll"), true},
      {"a poll that is null", Value(nullptr), true},
      {"options as a string", withOptions("Yes,No"), true},
      {"options null", withOptions(nullptr), true},
      {"an option that is a string", withOptions(Value::array({"Yes"})), true},
      {"options a single option", withOptions(Value{{"text", "Yes"}}), true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    log_.clear();
    const Value* dict = c.dict ? &*c.dict : nullptr;
    if (c.raises) {
      EXPECT_THROW(QVModelPoll::objectWithDictionary(dict), platform::Exception);
      continue;
    }
    const auto poll = QVModelPoll::objectWithDictionary(dict);
    ASSERT_NE(poll, nullptr);
    EXPECT_EQ(log_.count("nil id"), c.nilIdLines);
    EXPECT_EQ(poll->options().size(), c.options);
  }
}

}  // namespace
}  // namespace quorvia
