// Start-up: the release gate, the launch payload, the shared instance and
// the categories merged into the notification settings.

#include <set>
#include <thread>

#include "quorvia/QuorviaSDK.h"
#include "platform/ApplicationRecords.h"
#include "quorvia/platform/NotificationCenter.h"
#include "sdk/CategoriesManager.h"
#include "sdk/SDKState.h"
#include "support/FakeTransport.h"
#include "support/PlatformTest.h"
#include "ui/QVNotificationView.h"

namespace quorvia {
namespace {

using platform::Value;

class StartupTest : public testing::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    transport_ = testing::FakeTransport::install();
  }
  /// Poll fetches sent so far.
  int fetches() const {
    int n = 0;
    for (const auto& line : transport_->requestLines()) n += line.rfind("GET /apps/", 0) == 0;
    return n;
  }
  std::shared_ptr<QVNotificationView> banner() {
    return sdk::SDKState::shared().banner->presentedPollView();
  }
  std::shared_ptr<testing::FakeTransport> transport_;
  platform::Application& app() { return platform::Application::sharedApplication(); }
};

TEST_F(StartupTest, SharedInstanceIsCreatedOnceAcrossThreads) {
  std::vector<std::thread> threads;
  std::vector<QuorviaSDK*> seen(8);
  for (int i = 0; i < 8; ++i)
    threads.emplace_back([&, i] { seen[i] = QuorviaSDK::sharedInstance().get(); });
  for (auto& t : threads) t.join();
  EXPECT_EQ(std::set<QuorviaSDK*>(seen.begin(), seen.end()).size(), 1u);
  EXPECT_EQ(platform::ApplicationRecords::remoteNotificationRegistrationCount(app()), 1);
  EXPECT_EQ(platform::NotificationCenter::defaultCenter().observerCount(
                platform::UIApplicationDidBecomeActiveNotification),
            1u);
  EXPECT_TRUE(QuorviaSDK::sharedInstance()->debug()) << "logging is on from creation";
  EXPECT_TRUE(sdk::SDKState::shared().interception.addedMethods().empty());
}

TEST_F(StartupTest, ReleaseGateReadsTheLeadingInteger) {
  struct Case {
    const char* version;
    bool runs;
  };
  // Integer comparison: "10.3" passes where a text comparison would fail it.
  const Case cases[] = {{"7.1.2", false}, {"7.1", false}, {"8.0", true},  {"8.4.1", true},
                        {"10.3", true},   {"abc", false}, {" 9.0", true}, {"-8", false}};
  int n = 0;
  for (const auto& c : cases) {
    env_->setSystemVersion(c.version);
    const std::optional<std::string> before = sdk::SDKState::currentAppToken();
    const std::string token = "token-" + std::to_string(n++);
    log_.clear();
    const int fetchesBefore = fetches();
    QuorviaSDK::initWithAppToken(token, std::nullopt);
    if (c.runs) {
      EXPECT_EQ(sdk::SDKState::currentAppToken(), token) << c.version;
      EXPECT_TRUE(log_.contains("QuorviaSDK: Initialized SDK with app token: " + token))
          << c.version;
      EXPECT_EQ(fetches(), fetchesBefore + 1) << c.version;
      EXPECT_EQ(transport_->requestLines().back(), "GET /apps/" + token + "/polls/");
    } else {
      EXPECT_EQ(sdk::SDKState::currentAppToken(), before) << c.version << " keeps no token";
      EXPECT_EQ(log_.lines(),
                std::vector<std::string>{"QuorviaSDK: iOS lower than 8.0, SDK will not run."})
          << c.version;
      EXPECT_EQ(fetches(), fetchesBefore) << c.version;
    }
  }
  EXPECT_EQ(QuorviaSDK::sharedInstance()->appToken(), std::nullopt)
      << "the property stays unset; the token lives process-wide";
}

TEST_F(StartupTest, DebugOffSilencesEveryGatedLine) {
  QuorviaSDK::setDebug(false);
  env_->setSystemVersion("7.0");
  QuorviaSDK::initWithAppToken("A", std::nullopt);
  env_->setSystemVersion("9.0");
  QuorviaSDK::initWithAppToken("A", std::nullopt, false);
  QuorviaSDK::log("anything");
  EXPECT_TRUE(log_.lines().empty());
  QuorviaSDK::setDebug(true);
  QuorviaSDK::log("back");
  EXPECT_EQ(log_.lines(), std::vector<std::string>{"QuorviaSDK: back"});
}

TEST_F(StartupTest, LaunchPayloadDecidesBetweenPresentingAndFetching) {
  struct Case {
    const char* name;
    std::optional<Value> launchOptions;
    bool presents;
  };
  const Value withPoll = {
      {UIApplicationLaunchOptionsRemoteNotificationKey,
       {{"aps", {{"alert", "Q?"}}}, {"poll", {{"id", 7}, {"question", "Q?"}}}}}};
  const Case cases[] = {
      {"no launch options", std::nullopt, false},
      {"options without a payload", Value{{"other", 1}}, false},
      {"payload without poll",
       Value{{UIApplicationLaunchOptionsRemoteNotificationKey, {{"aps", Value::object()}}}}, false},
      {"payload that is not a dictionary",
       Value{{UIApplicationLaunchOptionsRemoteNotificationKey, "junk"}}, false},
      {"payload with poll", withPoll, true},
  };
  for (const auto& c : cases) {
    const int fetchesBefore = fetches();
    ASSERT_EQ(banner(), nullptr);
    log_.clear();
    QuorviaSDK::initWithAppToken("A", c.launchOptions, false);
    const bool logged =
        log_.contains("QuorviaSDK: Detected poll in notification upon app launch. Presenting.");
    EXPECT_EQ(logged, c.presents) << c.name;
    EXPECT_EQ(fetches() - fetchesBefore, c.presents ? 0 : 1) << c.name;
    advance(0.099);
    EXPECT_EQ(banner(), nullptr) << c.name << ": nothing before 0.1 s";
    advance(0.001);
    ASSERT_EQ(banner() != nullptr, c.presents) << c.name;
    if (c.presents) {
      EXPECT_TRUE(banner()->showOptions()) << c.name << ": expanded";
      EXPECT_EQ(platform::describe(banner()->poll()->objectId()), "7");
    }
  }
}

TEST_F(StartupTest, BecomingActiveFetches) {
  QuorviaSDK::sharedInstance();
  const int before = fetches();
  platform::NotificationCenter::defaultCenter().postNotificationName(
      platform::UIApplicationDidBecomeActiveNotification);
  EXPECT_EQ(fetches(), before + 1);
}

TEST_F(StartupTest, CategoriesMergeOutcomes) {
  const platform::CategorySet library = CategoriesManager().categories();
  platform::NotificationCategory hostOwn =
      CategoriesManager().createCategoryWithActions({"Go"}, "host");
  struct Case {
    const char* name;
    platform::NotificationSettings current;
    bool registers;
    std::optional<platform::CategorySet> expected;
  };
  const std::vector<Case> cases = {
      {"no alert bit",
       {platform::kUserNotificationTypeBadge | platform::kUserNotificationTypeSound,
        platform::CategorySet{hostOwn}},
       false,
       std::nullopt},
      {"already holds the library's",
       {7, library.setByAddingObjectsFromSet({hostOwn})},
       false,
       std::nullopt},
      {"other categories",
       {4, platform::CategorySet{hostOwn}},
       true,
       platform::CategorySet{hostOwn}.setByAddingObjectsFromSet(library)},
      {"absent set", {4, std::nullopt}, true, std::nullopt},
  };
  for (const auto& c : cases) {
    app().setCurrentUserNotificationSettings(c.current);
    const auto before = app().registeredUserNotificationSettings().size();
    QuorviaSDK::initWithAppToken("A", std::nullopt, false);
    const auto registered = app().registeredUserNotificationSettings();
    ASSERT_EQ(registered.size() - before, c.registers ? 1u : 0u) << c.name;
    if (!c.registers) continue;
    EXPECT_EQ(registered.back().types, 0u) << c.name << ": deliberately no types";
    ASSERT_EQ(registered.back().categories.has_value(), c.expected.has_value()) << c.name;
    if (c.expected) {
      EXPECT_TRUE(registered.back().categories->isEqualToSet(*c.expected)) << c.name;
    }
  }
}

}  // namespace
}  // namespace quorvia
