// What a host written in plain C++ touches: a typed application delegate that
// interception treats as a delegate class with exactly the callbacks it
// provides, the typed events, and the service's origin from the options.

#include <cstdlib>

#include "platform/ApplicationDelegateRuntime.h"
#include "quorvia/Observer.h"
#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/Application.h"
#include "sdk/SDKState.h"
#include "support/FakeTransport.h"
#include "support/PlatformTest.h"
#include "ui/QVNotificationView.h"

namespace quorvia {
namespace {

using platform::ApplicationDelegate;
using platform::FetchResult;
using platform::Value;

constexpr std::string_view kToken = platform::kDidRegisterForRemoteNotificationsSelector;
constexpr std::string_view kFail = platform::kDidFailToRegisterForRemoteNotificationsSelector;
constexpr std::string_view kReceive = platform::kDidReceiveRemoteNotificationSelector;
constexpr std::string_view kFetch = platform::kDidReceiveRemoteNotificationFetchSelector;
constexpr std::string_view kAction = platform::kHandleActionSelector;
constexpr std::string_view kResponseInfo = platform::kHandleActionWithResponseInfoSelector;

const platform::Error kUnreachable{
    platform::NSURLErrorDomain, -1004,
    Value{{platform::kNSLocalizedDescriptionKey, "Could not connect to the server."}}};
const Value kPayload = Value::parse(R"({"aps":{"alert":"Q?"},"poll":{"id":7,"question":"Q?"}})");

class HostApiTest : public testing::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    transport_ = testing::FakeTransport::install();
  }
  void answerAll(long status = 200, const std::string& body = "{}") {
    for (; answered_ < transport_->requestCount(); ++answered_)
      transport_->respond(answered_, status, body);
    drain();
  }
  static Value added() { return sdk::SDKState::shared().interception.addedMethods(); }

  std::shared_ptr<testing::FakeTransport> transport_;
  std::size_t answered_ = 0;
};

// A typed delegate: each callback the host provides is one its class implements, with the
// platform's arguments in C++ types; every other one is added by the library, which then
// completes the platform's call itself, once.
TEST_F(HostApiTest, TypedDelegateProvidesExactlyTheCallbacksItSets) {
  std::vector<std::string> heard;
  int fetchCompletions = 0, actionCompletions = 0;
  std::optional<FetchResult> fetchResult;
  ApplicationDelegate delegate;
  delegate.didRegisterForRemoteNotifications = [&](const platform::Bytes& token) {
    heard.push_back("token " + platform::hexString(token));
  };
  // The host completes its fetch itself, with "no data".
  delegate.didReceiveRemoteNotificationWithFetchCompletion =
      [&](const std::optional<Value>& userInfo, std::function<void(FetchResult)> done) {
        heard.push_back("fetch " +
                        platform::describe(userInfo ? &(*userInfo)["poll"]["id"] : nullptr));
        done(FetchResult::kNoData);
      };
  delegate.handleActionWithResponseInfo = [&](const std::optional<std::string>& identifier,
                                              const std::optional<Value>&,
                                              const std::optional<Value>& responseInfo,
                                              std::function<void()>) {
    // Keeps its completion: the reply must not complete it either.
    heard.push_back("action " + identifier.value_or("") + " " + platform::describe(responseInfo));
  };
  platform::Application::sharedApplication().setDelegate(std::move(delegate));
  QuorviaSDK::initWithAppToken("app", std::nullopt);
  EXPECT_EQ(added(), (Value{{std::string(kFail), true},
                            {std::string(kReceive), true},
                            {std::string(kAction), true}}));

  platform::MessageArguments token;
  token.deviceToken = platform::Bytes{0x00, 0x01, 0xab, 0xff, 0x10};
  ASSERT_TRUE(platform::deliverToApplicationDelegate(kToken, token));
  platform::MessageArguments fetch;
  fetch.userInfo = kPayload;
  fetch.fetchCompletionHandler = [&](int result) {
    ++fetchCompletions;
    fetchResult = static_cast<FetchResult>(result);
  };
  ASSERT_TRUE(platform::deliverToApplicationDelegate(kFetch, fetch));
  platform::MessageArguments action;
  action.identifier = "Yes";
  action.userInfo = kPayload;
  action.responseInfo = Value{{"typed", "hi"}};
  action.completionHandler = [&] { ++actionCompletions; };
  ASSERT_TRUE(platform::deliverToApplicationDelegate(kResponseInfo, action));
  // The one it lacks: the library's work only, and the library completes.
  platform::MessageArguments fail;
  fail.error = platform::Error{"NSCocoaErrorDomain", 3010, Value::object()};
  ASSERT_TRUE(platform::deliverToApplicationDelegate(kFail, fail));
  answerAll(200, R"({"access_token":"t"})");

  EXPECT_EQ(heard, (std::vector<std::string>{"token 0001abff10", "fetch 7",
                                             "action Yes {\n    typed = hi;\n}"}));
  EXPECT_EQ(fetchCompletions, 1);
  EXPECT_EQ(fetchResult, FetchResult::kNoData);
  EXPECT_EQ(actionCompletions, 0) << "the host implements the callback: completing is its duty";
  // The library's work ran for each: registration, the banner, the reply.
  EXPECT_EQ(transport_->requestLines(),
            (std::vector<std::string>{"GET /apps/app/polls/", "POST /endpoints/",
                                      "POST /polls/7/replies/"}));
}

// Each step is told once, after it is done, on the main queue; a host that observes nothing
// gets no extra work queued.
TEST_F(HostApiTest, EventsTellEachStepOnceAfterItHappened) {
  std::vector<std::string> events;
  auto poll = [](const char* what, const PollEvent& p) {
    return std::string(what) + " " + p.pollId.value_or("nil") + " " + p.question.value_or("nil");
  };
  QuorviaSDK::initWithAppToken("app", std::nullopt, /*swizzling=*/true);
  answerAll();
  auto& banner = *sdk::SDKState::shared().banner;

  // What an unobserved presentation queues (the second, when the first made what lasts).
  std::size_t unobserved = 0;
  for (int i = 0; i < 2; ++i) {
    const std::size_t before = loop_->pendingTasks();
    QuorviaSDK::handleRemoteNotification(kPayload);
    unobserved = loop_->pendingTasks() - before;
    ASSERT_TRUE(banner.presentedPollView());
    banner.hideNotificationView(banner.presentedPollView());
    advance(0.5);
  }

  setObserver({
      .deviceRegistered =
          [&](const std::string& token) { events.push_back("registered " + token); },
      .deviceRegistrationFailed =
          [&](const RegistrationFailure& f) {
            events.push_back(
                std::string("failed ") +
                (f.stage == RegistrationFailure::Stage::kPushToken ? "push" : "service"));
          },
      .pollPresented = [&](const PollEvent& p) { events.push_back(poll("presented", p)); },
      .bannerExpanded = [&](const PollEvent& p) { events.push_back(poll("expanded", p)); },
      .replySent =
          [&](const ReplyEvent& r) {
            events.push_back("replied " + r.pollId.value_or("nil") + " " +
                             r.replyText.value_or("nil") + " " + r.error.value_or("ok"));
          },
      .bannerHidden = [&](const PollEvent& p) { events.push_back(poll("hidden", p)); },
  });
  const std::size_t start = loop_->pendingTasks();
  QuorviaSDK::handleRemoteNotification(kPayload);
  EXPECT_EQ(loop_->pendingTasks() - start, unobserved + 1);
  EXPECT_TRUE(events.empty()) << "never inside the SDK's own step";
  drain();
  auto view = banner.presentedPollView();
  ASSERT_TRUE(view);
  banner.notificationViewDidPressExpand(view);
  banner.notificationView(view, std::string("Yes"), std::nullopt);
  answerAll();
  advance(0.5);
  QuorviaSDK::handleActionWithIdentifier("No", Value::object());  // a payload without a poll
  transport_->fail(answered_++, -1004, "Could not connect to the server.");
  drain();
  QuorviaSDK::setDeviceToken(platform::Bytes{0xab});
  answerAll(200, R"({"access_token":"t"})");
  QuorviaSDK::setDeviceToken(platform::Bytes{0xcd});
  transport_->fail(answered_++, -1004, "Could not connect to the server.");
  drain();
  platform::MessageArguments fail;
  fail.error = platform::Error{"NSCocoaErrorDomain", 3010, Value::object()};
  platform::deliverToApplicationDelegate(kFail, fail);
  drain();

  EXPECT_EQ(events,
            (std::vector<std::string>{"presented 7 Q?", "expanded 7 Q?", "replied 7 Yes ok",
                                      "hidden 7 Q?", "replied nil No " + kUnreachable.description(),
                                      "registered ab", "failed service", "failed push"}));
}

// The options' origin wins over the process environment's, which only stands in for it.
TEST_F(HostApiTest, ServiceOriginFromTheOptionsComesFirst) {
  ASSERT_EQ(::setenv("QUORVIA_SERVICE_BASE_URL", "http://127.0.0.1:1", 1), 0);
  env_->setServiceBaseURL("http://127.0.0.1:2");
  QuorviaSDK::initWithAppToken("app", std::nullopt);
  drain();
  ASSERT_EQ(transport_->requestCount(), 1u);
  const auto url = transport_->request(0).url;
  ASSERT_TRUE(url);
  EXPECT_EQ(url->absoluteString, "http://127.0.0.1:2/apps/app/polls/");
}

}  // namespace
}  // namespace quorvia
