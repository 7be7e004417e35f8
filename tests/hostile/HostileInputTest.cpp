// Input from outside that once steered, dropped or reported what it should
// not: ids that climb the service's paths, an action without a payload,
// malformed polls that must be dropped without a word; and the thread a
// completion's captures die on.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "networking/SimpleNetworking.h"
#include "platform/URLSession.h"
#include "platform/UserDefaults.h"
#include "platform/push/NotificationActions.h"
#include "platform/push/RemoteNotifications.h"
#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/Application.h"
#include "platform/ApplicationDelegateRuntime.h"
#include "platform/Runtime.h"
#include "quorvia/platform/ApplicationDelegate.h"
#include "quorvia/platform/HostWindow.h"
#include "sdk/SDKState.h"
#include "support/FakeTransport.h"
#include "support/LoopbackServer.h"
#include "support/PlatformTest.h"

namespace quorvia {
namespace {

using platform::Value;

class HostileInputTest : public testing::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    transport_ = testing::FakeTransport::install();
  }
  std::string lastURL() const {
    return transport_->request(transport_->requestCount() - 1).url->absoluteString;
  }
  std::string origin() const { return "http://127.0.0.1:8765"; }

  std::shared_ptr<testing::FakeTransport> transport_;
};

// An id or app token lands in the path as one escaped segment, so that it can
// neither climb to another endpoint nor add a query or a fragment; ordinary
// ids, and the "(null)" of a missing one, stay as they are.
TEST_F(HostileInputTest, IdsAndAppTokensStayOneEscapedPathSegment) {
  const std::pair<std::optional<Value>, const char*> replies[] = {
      {Value(7), "/polls/7/replies/"},
      {Value("a1-B_2.c~"), "/polls/a1-B_2.c~/replies/"},
      {std::nullopt, "/polls/(null)/replies/"},
      {Value("../../me#"), "/polls/..%2F..%2Fme%23/replies/"},
      {Value("1/../../admin/polls?x="), "/polls/1%2F..%2F..%2Fadmin%2Fpolls%3Fx=/replies/"},
      {Value(".."), "/polls/%2E%2E/replies/"},
      {Value("50%"), "/polls/50%25/replies/"},
      {Value("a b\r\n"), "/polls/a%20b%0D%0A/replies/"},
  };
  for (const auto& [id, path] : replies) {
    Value poll = Value::object();
    if (id) poll["id"] = *id;
    QuorviaSDK::handleActionWithIdentifier("Yes&user_info=PWNED", Value{{"poll", poll}});
    EXPECT_EQ(lastURL(), origin() + path);
  }
  const std::pair<const char*, const char*> tokens[] = {
      {"app-1", "/apps/app-1/polls/"},
      {"../admin/polls?x=", "/apps/..%2Fadmin%2Fpolls%3Fx=/polls/"},
  };
  for (const auto& [token, path] : tokens) {
    QuorviaSDK::initWithAppToken(token, std::nullopt, false);
    EXPECT_EQ(lastURL(), origin() + path);
  }
}

// A notification action that arrives without a payload is a nil payload: the
// reply still goes out, to the "(null)" poll, and the platform's completion
// is called once the reply is done.
TEST_F(HostileInputTest, ActionWithoutPayloadStillRepliesAndCompletes) {
  auto delegateClass = platform::Class::create("HostileHostDelegate");
  auto delegate = std::make_shared<platform::Object>(delegateClass);
  platform::setDelegateObject(platform::Application::sharedApplication(), delegate);
  QuorviaSDK::initWithAppToken("app", std::nullopt, /*swizzling=*/true);
  const std::size_t before = transport_->requestCount();

  int completions = 0;
  platform::MessageArguments action;
  action.identifier = "Yes";
  action.completionHandler = [&] { ++completions; };
  ASSERT_TRUE(delegate->send(platform::kHandleActionWithResponseInfoSelector, action));

  ASSERT_EQ(transport_->requestCount(), before + 1);
  EXPECT_EQ(lastURL(), origin() + "/polls/(null)/replies/");
  EXPECT_EQ(transport_->bodyText(before), "reply_text=Yes");
  EXPECT_TRUE(log_.contains("nil id"));
  EXPECT_TRUE(log_.contains("QuorviaSDK: Poll id is nil!"));
  EXPECT_EQ(completions, 0) << "not before the reply is done";
  transport_->respond(before, 200, "{}");
  drain();
  EXPECT_EQ(completions, 1);
}

// Where a malformed poll is dropped without any message, no line is written:
// a push handed in by the host, and the first poll of a fetch.
TEST_F(HostileInputTest, MalformedPollsAreDroppedWithoutAMessage) {
  const Value malformed = {{"id", 1}, {"question", "Q"}, {"options", 5}};
  QuorviaSDK::sharedInstance();
  log_.clear();
  QuorviaSDK::handleRemoteNotification(Value{{"poll", malformed}});
  EXPECT_EQ(log_.lines(), std::vector<std::string>{});

  sdk::SDKState::shared().service->fetchPolls();
  log_.clear();
  transport_->respond(transport_->requestCount() - 1, 200,
                      Value{{"results", Value::array({malformed})}}.dump());
  drain();
  EXPECT_EQ(log_.lines(), std::vector<std::string>{});
  EXPECT_EQ(sdk::SDKState::shared().banner->presentedPollView(), nullptr);
}

// With the debug switch off a host hears only the three kinds of line that
// bypass it: "nil id", a failed fetch's error and an exception caught while
// sending a reply. Whatever else a run of hostile input provokes, in the SDK
// or in the platform under it, is silent.
TEST_F(HostileInputTest, WithDebugOffOnlyTheThreeUnswitchedKindsOfLineAreWritten) {
  std::filesystem::create_directories(dataDir_ / "data");
  std::ofstream(dataDir_ / "data" / "UserDefaults.qvka") << "not an archive";
  const auto emptyBundle = dataDir_ / "resources" / "com.quorvia.sdk.ios";
  std::filesystem::create_directories(emptyBundle);
  ::setenv("QUORVIA_RESOURCE_DIR", emptyBundle.parent_path().c_str(), 1);
  QuorviaSDK::setDebug(false);

  auto& app = platform::Application::sharedApplication();
  platform::deliverNotificationAction("Yes", Value::object());  // nobody to deliver it to
  app.setCurrentUserNotificationSettings(platform::NotificationSettings::settingsForTypes(7, {}));
  platform::deliverRemoteNotification(Value{{"aps", {{"alert", 5}}}});
  platform::HostWindow({-1, 0}, 2).pointerDown({std::nan(""), 0});  // no size, no point
  platform::setDelegateObject(
      app, std::make_shared<platform::Object>(platform::Class::create("QuietHost")));
  QuorviaSDK::initWithAppToken(
      "app", Value{{UIApplicationLaunchOptionsRemoteNotificationKey, {{"poll", 5}}}});
  advance(0.1);  // the launch poll, not a dictionary
  platform::MessageArguments opened;
  opened.identifier = platform::kDefaultActionIdentifier;
  opened.userInfo = Value{{"poll", "not a poll"}};
  platform::delegateObject(app)->send(platform::kHandleActionWithResponseInfoSelector, opened);
  SimpleNetworking::setHeaderFieldsWithDictionary(Value(3));
  SimpleNetworking::setHeaderFieldsWithDictionary(Value{{"X-Count", 3}});
  SimpleNetworking::postToURL(origin() + "/x", Value::array({1}), [](auto, auto) {});
  platform::UserDefaults::standardUserDefaults().setObject(Value("text"), "archived");
  EXPECT_FALSE(SimpleNetworking::shared().unarchiveForKey("archived"));
  // Without its layout files the banner still shows, and says nothing of it.
  const Value poll = {{"id", 3}, {"question", "Q"}, {"options", {{{"text", "A"}}}}};
  QuorviaSDK::handleRemoteNotification(Value{{"poll", poll}});
  advance(0.3);
  EXPECT_NE(sdk::SDKState::shared().banner->presentedPollView(), nullptr);
  ::unsetenv("QUORVIA_RESOURCE_DIR");

  // The three.
  QuorviaSDK::handleActionWithIdentifier("Yes", Value{{"poll", Value::object()}});
  QuorviaSDK::handleActionWithIdentifier("Yes", Value(5));
  QuorviaSDK::initWithAppToken("app", std::nullopt);
  ASSERT_NE(lastURL().find("/apps/app/polls/"), std::string::npos);
  transport_->fail(transport_->requestCount() - 1, platform::NSURLErrorCannotConnectToHost,
                   "Could not connect to the server.");
  drain();

  const platform::Error fetchError{
      platform::NSURLErrorDomain, platform::NSURLErrorCannotConnectToHost,
      Value{{platform::kNSLocalizedDescriptionKey, "Could not connect to the server."}}};
  std::vector<std::string> expected = {
      "nil id", platform::unrecognizedSelector(Value(5), "objectForKey:").what(),
      fetchError.description()};
  std::vector<std::string> lines = log_.lines();
  std::sort(expected.begin(), expected.end());
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ(lines, expected);
}

// Counts the destructions, off the main thread, of copies that still hold the
// counter; a moved-from copy holds nothing.
struct Probe {
  std::shared_ptr<std::atomic<int>> offMain;
  std::thread::id main = std::this_thread::get_id();
  explicit Probe(std::shared_ptr<std::atomic<int>> counter) : offMain(std::move(counter)) {}
  Probe(const Probe&) = default;
  Probe(Probe&&) = default;
  ~Probe() {
    if (offMain && std::this_thread::get_id() != main) ++*offMain;
  }
};

class CompletionLifetimeTest : public testing::PlatformTest {};

// A completion handler and everything it captured die on the main queue,
// never on the transport's thread, whether the request was answered or failed.
TEST_F(CompletionLifetimeTest, CapturesDieOnTheMainQueue) {
  for (const auto behaviour :
       {testing::LoopbackServer::Behaviour::kAnswer, testing::LoopbackServer::Behaviour::kRefuse}) {
    testing::LoopbackServer server(behaviour);
    const auto offMain = std::make_shared<std::atomic<int>>(0);
    constexpr int kRequests = 20;
    int done = 0;
    for (int i = 0; i < kRequests; ++i) {
      SimpleNetworking::getJsonCachelessFromURL(
          server.url("/probe"), std::nullopt,
          [&done, probe = Probe(offMain)](auto, auto) { ++done; });
    }
    ASSERT_TRUE(loop_->runUntil([&] { return done == kRequests; }, platform::seconds(30)));
    drain();
    EXPECT_EQ(*offMain, 0) << "a capture died off the main queue";
  }
}

}  // namespace
}  // namespace quorvia
