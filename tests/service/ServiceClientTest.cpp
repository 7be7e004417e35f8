// The four service calls end to end against a recording server on 127.0.0.1:
// the bytes on the wire, the access token's life, and the completion rules.

#include <cstdlib>
#include <ranges>
#include <thread>

#include "keychain/LKKeychain.h"
#include "quorvia/QuorviaSDK.h"
#include "platform/ApplicationRecords.h"
#include "platform/ApplicationDelegateRuntime.h"
#include "sdk/SDKState.h"
#include "support/FakeTransport.h"
#include "support/LoopbackServer.h"
#include "support/PlatformTest.h"
#include "ui/QVNotificationView.h"

namespace quorvia::testing {
namespace {

using platform::Value;

class ServiceClientTest : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    server_.setResponder([this](const RecordedRequest& request) {
      std::lock_guard lock(mu_);
      Reply reply;
      if (request.target == "/endpoints/" && token_)
        reply.body = Value{{"access_token", *token_}}.dump();
      return reply;
    });
    // Read once per process; every test runs in a process of its own.
    env_->setServiceBaseURL(server_.baseURL());
  }

  /// What the service's answers to a registration carry from now on.
  void answerRegistrationWith(std::string token) {
    std::lock_guard lock(mu_);
    token_ = std::move(token);
  }
  bool waitUntil(const std::function<bool()>& done) {
    return loop_->runUntil(done, platform::seconds(20));
  }
  bool waitForLog(const std::string& line) {
    return waitUntil([&] { return log_.contains(line); });
  }
  bool waitForRequests(std::size_t count) {
    return waitUntil([&] { return server_.requestCount() >= count; });
  }
  RecordedRequest last() const { return server_.requests().back(); }
  static std::string line(const RecordedRequest& r) { return r.method + " " + r.target; }
  static std::optional<std::string> storedToken() {
    return LKKeychain::passwordForService("polls", "user_token");
  }
  static service::PollService& service() { return *sdk::SDKState::shared().service; }

  LoopbackServer server_;
  std::mutex mu_;
  std::optional<std::string> token_;
};

TEST_F(ServiceClientTest, AccessTokenFromRegistrationAuthorisesEveryLaterCall) {
  // Before start-up there is no app token: its key is left out, its path
  // segment reads "(null)"; an answer without an access token stores nothing.
  QuorviaSDK::setDeviceToken(platform::Bytes{0xde, 0xad, 0xbe, 0xef, 0x00, 0x01, 0x02, 0x03, 0x04});
  QuorviaSDK::setDeviceToken(std::nullopt);  // nil is ignored
  ASSERT_TRUE(waitForLog("QuorviaSDK: Successfully registered device push token."));
  ASSERT_EQ(server_.requestCount(), 1u);
  EXPECT_EQ(last().body, "push_token=deadbeef0001020304&platform=ios");
  EXPECT_EQ(storedToken(), std::nullopt);
  service().fetchPolls();
  ASSERT_TRUE(waitForRequests(2));
  EXPECT_EQ(last().target, "/apps/(null)/polls/");
  log_.clear();

  QuorviaSDK::initWithAppToken("A", std::nullopt, false);
  ASSERT_TRUE(waitForRequests(3));
  EXPECT_EQ(line(last()), "GET /apps/A/polls/") << "no query string";
  EXPECT_FALSE(last().hasHeader("Authorization")) << "nothing stored yet";

  answerRegistrationWith("tok-1");
  QuorviaSDK::setDeviceToken(platform::Bytes{0x00, 0x01, 0xab, 0xff, 0x10});
  ASSERT_TRUE(waitForLog("QuorviaSDK: Successfully registered device push token."));
  EXPECT_EQ(line(last()), "POST /endpoints/");
  EXPECT_EQ(last().body, "push_token=0001abff10&app_token=A&platform=ios");
  EXPECT_FALSE(last().hasHeader("Authorization")) << "a first registration is unauthenticated";
  EXPECT_FALSE(last().hasHeader("Content-Type")) << "a plain POST gets no form type";
  EXPECT_EQ(storedToken(), "tok-1");

  const Value pollId = 7;
  service().sendReplyWithIdentifier("Yes", &pollId, nullptr);
  ASSERT_TRUE(waitForLog("QuorviaSDK: Successfuly sent reply: Yes"));
  EXPECT_EQ(line(last()), "POST /polls/7/replies/");
  EXPECT_EQ(last().body, "reply_text=Yes");
  EXPECT_EQ(last().header("Authorization"), "JWT tok-1");

  service().fetchPolls();
  ASSERT_TRUE(waitForRequests(6));
  EXPECT_EQ(line(last()), "GET /apps/A/polls/");
  EXPECT_EQ(last().header("Authorization"), "JWT tok-1");

  QuorviaSDK::setUserInfo(Value{{"name", "A"}});
  // The success line reads as a failure, deliberately.
  ASSERT_TRUE(waitForLog("QuorviaSDK: Failed to set user info: {\n    name = A;\n}"));
  EXPECT_EQ(line(last()), "POST /me");
  EXPECT_EQ(last().body, "user_info={\n    name = A;\n}");
  EXPECT_EQ(last().header("Authorization"), "JWT tok-1") << "rides on the header installed last";

  // A second registration sends the stored token and replaces it.
  answerRegistrationWith("tok-2");
  QuorviaSDK::setDeviceToken(platform::Bytes{0xff});
  ASSERT_TRUE(waitForRequests(8));
  EXPECT_EQ(last().header("Authorization"), "JWT tok-1");
  ASSERT_TRUE(waitUntil([] { return storedToken() == "tok-2"; }));
  service().fetchPolls();
  ASSERT_TRUE(waitForRequests(9));
  EXPECT_EQ(last().header("Authorization"), "JWT tok-2");

  // From many threads while the main loop runs: each call goes out once, with
  // the token; nil sends nothing.
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 5; ++i) QuorviaSDK::setUserInfo(Value{{"thread", t}, {"i", i}});
    });
  }
  QuorviaSDK::setUserInfo(std::nullopt);
  const bool all = waitForRequests(49);
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(all);
  EXPECT_EQ(log_.count("QuorviaSDK: Sending request to set user info"), 41);
  for (const auto& request : server_.requests() | std::views::drop(9))
    EXPECT_EQ(line(request) + " " + request.header("Authorization"), "POST /me JWT tok-2");

  for (const auto& logged : log_.lines())
    EXPECT_EQ(logged.find("tok-"), std::string::npos) << "a token reached the log: " << logged;
}

// The reply's completion calls the handler only when the library supplied the
// response-info callback itself, and ends the background task once, even
// when the task expired first.
TEST_F(ServiceClientTest, ReplyCompletesOnlyForALibrarySuppliedCallbackAndEndsItsTaskOnce) {
  const std::string responseInfo(platform::kHandleActionWithResponseInfoSelector);
  auto& app = platform::Application::sharedApplication();
  int ends = 0;
  platform::ApplicationRecords::setBackgroundTaskObserver(
      app, [&](const platform::BackgroundTaskRecord&, bool began) { ends += !began; });
  // Whether the library added the callback (nullopt: no entry), whether the task expires first.
  for (const auto& [added, expireFirst] : std::vector<std::pair<std::optional<bool>, bool>>{
           {std::nullopt, false}, {false, false}, {true, false}, {true, true}}) {
    SCOPED_TRACE(::testing::Message() << added.value_or(false) << expireFirst);
    if (added) sdk::SDKState::shared().interception.mutableAddedMethods()[responseInfo] = *added;
    int calls = 0;
    ends = 0;
    log_.clear();
    service().sendReplyWithIdentifier("No", Value{{"poll", {{"id", "p9"}}}}, [&] { ++calls; });
    EXPECT_EQ(platform::ApplicationRecords::backgroundTasks(app).back().name, "MyTask");
    if (expireFirst) {
      ASSERT_TRUE(platform::ApplicationRecords::expireBackgroundTask(
          app, service::PollService::currentReplyBackgroundTask()));
    }
    ASSERT_TRUE(waitForLog("QuorviaSDK: Successfuly sent reply: No"));
    drain();
    EXPECT_EQ(calls, added == true);
    EXPECT_EQ(log_.count("QuorviaSDK: Calling completionHandler for " + responseInfo), calls);
    EXPECT_EQ(service::PollService::currentReplyBackgroundTask(),
              platform::UIBackgroundTaskInvalid);
    EXPECT_TRUE(platform::ApplicationRecords::backgroundTasks(app).back().ended);
    EXPECT_EQ(ends, 1);
  }
  platform::ApplicationRecords::setBackgroundTaskObserver(app, {});
}

// On the fake transport each answer is delivered exactly when the test says:
// an answer without a usable first poll shows nothing and logs nothing, a
// transport error is one unprefixed line even without debug, and of a list
// only the first poll is shown.
TEST_F(ServiceClientTest, FetchPresentsTheFirstPollOfAUsableAnswerOnly) {
  auto transport = FakeTransport::install();
  QuorviaSDK::initWithAppToken("A", std::nullopt, false);
  const std::string unusable[] = {R"({"results":[]})",
                                  R"({"results":"not a list"})",
                                  R"({"count":3})",
                                  R"({"results":{"a":1}})",
                                  "[1,2]",
                                  "<html>500</html>",
                                  ""};
  log_.clear();
  for (std::size_t i = 0; i < std::size(unusable); ++i) {
    SCOPED_TRACE(unusable[i]);
    if (i > 0) service().fetchPolls();
    ASSERT_EQ(transport->requestCount(), i + 1);
    transport->respond(i, unusable[i].starts_with("<html>") ? 500 : 200, unusable[i]);
    drain();
    EXPECT_EQ(sdk::SDKState::shared().banner->presentedPollView(), nullptr);
    EXPECT_EQ(log_.lines(), std::vector<std::string>{});
  }

  QuorviaSDK::setDebug(false);
  service().fetchPolls();
  transport->fail(transport->requestCount() - 1, platform::NSURLErrorCannotConnectToHost,
                  "Could not connect to the server.");
  drain();
  EXPECT_EQ(log_.lines(), std::vector<std::string>{
                              "Error Domain=NSURLErrorDomain Code=-1004 \"Could not connect to the "
                              "server.\" UserInfo={NSLocalizedDescription=Could not connect to "
                              "the server.}"});

  QuorviaSDK::setDebug(true);
  service().fetchPolls();
  transport->respond(transport->requestCount() - 1, 200,
                     Value{{"results",
                            {{{"id", 11}, {"question", "First?"}, {"options", {{{"text", "Yes"}}}}},
                             {{"id", 12}, {"question", "Second?"}}}}}
                         .dump());
  drain();
  ASSERT_NE(sdk::SDKState::shared().banner->presentedPollView(), nullptr);
  EXPECT_EQ(sdk::SDKState::shared().banner->presentedPollView()->poll()->objectId(), Value(11));
}

// A token that cannot travel as one header line is neither kept nor sent: it
// would write headers of its own, or fail every later request for good.
TEST_F(ServiceClientTest, UnacceptableAccessTokenIsNeverKeptNorSent) {
  ASSERT_TRUE(LKKeychain::setPassword("good", "polls", "user_token"));
  QuorviaSDK::initWithAppToken("A", std::nullopt, false);
  ASSERT_TRUE(waitForRequests(1));
  EXPECT_EQ(last().header("Authorization"), "JWT good");

  const std::pair<const char*, std::string> cases[] = {
      {"line break", "evil\r\nX-Injected: 1"},
      {"NUL", std::string("a\0b", 3)},
      {"vertical tab", "a\vb"},
      {"line separator", "a\u2028b"},
      {"1 MiB", std::string(1 << 20, 'a')},
      {"empty", ""},
      {"blanks", "   "},
      {"tab and blank", "\t "},
  };
  std::size_t requests = 1;
  for (const auto& [name, token] : cases) {
    SCOPED_TRACE(name);
    log_.clear();
    answerRegistrationWith(token);
    QuorviaSDK::setDeviceToken(platform::Bytes{0x01});
    ASSERT_TRUE(
        waitForLog("QuorviaSDK: Ignored an access token that is not one line of printable text of "
                   "at most 8 KiB."));
    EXPECT_EQ(storedToken(), "good") << "the stored token stays";
    ++requests;

    // One stored by other means is refused when it would be sent (an empty one reads as none).
    if (token.empty()) continue;
    ASSERT_TRUE(LKKeychain::setPassword(token, "polls", "user_token"));
    service().fetchPolls();
    ASSERT_TRUE(waitForRequests(++requests));
    EXPECT_TRUE(log_.contains(
        "QuorviaSDK: Refused to send an access token that is not one line of printable text."));
    EXPECT_EQ(last().header("Authorization"), "JWT good") << "the header fields stay as they were";
    ASSERT_TRUE(LKKeychain::setPassword("good", "polls", "user_token"));
  }
  for (const auto& request : server_.requests()) EXPECT_FALSE(request.hasHeader("X-Injected"));
}

}  // namespace
}  // namespace quorvia::testing
