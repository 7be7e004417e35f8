// Interception of the application delegate's six callbacks: which ones the
// library adds, the library's work before the host's own code, and who
// completes the platform's completion handlers, exactly once.

#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/Application.h"
#include "platform/ApplicationDelegateRuntime.h"
#include "platform/Runtime.h"
#include "sdk/SDKState.h"
#include "support/FakeTransport.h"
#include "support/PlatformTest.h"
#include "ui/QVNotificationView.h"

namespace quorvia::testing {
namespace {

using platform::Value;
using Selectors = std::vector<std::string_view>;

constexpr const char* kDefaultAction = "com.apple.UNNotificationDefaultActionIdentifier";
constexpr const char* kTokenLine = "QuorviaSDK: Received device push token from iOS.";
constexpr const char* kRegistrationFailedLine =
    "QuorviaSDK: Failed to register for remote notifications. Make sure Push Notifications is "
    "enabled in your target capabilities.";
constexpr std::string_view kToken = platform::kDidRegisterForRemoteNotificationsSelector;
constexpr std::string_view kFail = platform::kDidFailToRegisterForRemoteNotificationsSelector;
constexpr std::string_view kReceive = platform::kDidReceiveRemoteNotificationSelector;
constexpr std::string_view kFetch = platform::kDidReceiveRemoteNotificationFetchSelector;
constexpr std::string_view kAction = platform::kHandleActionSelector;
constexpr std::string_view kResponseInfo = platform::kHandleActionWithResponseInfoSelector;
const Selectors kAll = {kToken, kFail, kReceive, kFetch, kAction, kResponseInfo};

/// One call that reached the host's own code, with what the library had done by then.
struct HostCall {
  std::string selector;
  platform::MessageArguments arguments;
  std::size_t requestsBefore = 0;
  bool bannerShown = false;
};

class InterceptionTest : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    transport_ = FakeTransport::install();
  }

  /// A delegate class implementing `implemented` itself; its methods record
  /// the call and, when `completes`, complete at once.
  std::shared_ptr<platform::Class> hostClass(const std::string& name, const Selectors& implemented,
                                             std::shared_ptr<platform::Class> superclass = nullptr,
                                             bool completes = false) {
    auto cls = platform::Class::create(name, std::move(superclass));
    for (std::string_view selector : implemented) {
      platform::class_addMethod(
          cls.get(), selector,
          [this, selector = std::string(selector), completes](platform::Object&,
                                                              const platform::MessageArguments& a) {
            hostCalls_.push_back({selector, a, transport_->requestCount(),
                                  sdk::SDKState::shared().banner->presentedPollView() != nullptr});
            if (completes && a.fetchCompletionHandler) a.fetchCompletionHandler(1);
            if (completes && a.completionHandler) a.completionHandler();
          },
          platform::applicationDelegateTypeEncoding(selector));
    }
    return cls;
  }
  void install(std::shared_ptr<platform::Class> cls) {
    platform::setDelegateObject(platform::Application::sharedApplication(), 
        std::make_shared<platform::Object>(std::move(cls)));
  }

  /// What the platform passes with `selector`; completions count into the fixture.
  platform::MessageArguments argumentsFor(std::string_view selector,
                                          const std::string& identifier = "Yes") {
    platform::MessageArguments a;
    a.application = &platform::Application::sharedApplication();
    if (selector == kToken) {
      a.deviceToken = platform::Bytes{0x00, 0x01, 0xab, 0xff, 0x10};
    } else if (selector == kFail) {
      a.error = platform::Error{"NSCocoaErrorDomain", 3010, Value::object()};
    } else {
      a.userInfo = Value::parse(R"({"aps":{"alert":"Q?"},"poll":{"id":7,"question":"Q?"}})");
    }
    if (selector == kFetch)
      a.fetchCompletionHandler = [this](int result) { fetchCompletions_.push_back(result); };
    if (selector == kAction || selector == kResponseInfo) {
      a.identifier = identifier;
      a.completionHandler = [this] { ++actionCompletions_; };
    }
    if (selector == kResponseInfo)
      a.responseInfo = Value{{"UIUserNotificationActionResponseTypedTextKey", "hi"}};
    return a;
  }

  /// Delivers a callback as the platform does. A banner it showed is counted
  /// and slid out again, so that the next delivery may show one too.
  bool deliver(std::string_view selector, std::optional<platform::MessageArguments> given = {}) {
    const bool delivered =
        platform::deliverToApplicationDelegate(selector, given ? *given : argumentsFor(selector));
    auto& banner = *sdk::SDKState::shared().banner;
    if (auto view = banner.presentedPollView()) {
      ++presentations_;
      expansions_ += view->showOptions() ? 1 : 0;
      banner.hideNotificationView(view);
      advance(0.3);
    }
    return delivered;
  }

  void answerAll() {
    for (; answered_ < transport_->requestCount(); ++answered_)
      transport_->respond(answered_, 200, "{}");
    drain();
  }
  static Value added() { return sdk::SDKState::shared().interception.addedMethods(); }

  std::shared_ptr<FakeTransport> transport_;
  std::vector<HostCall> hostCalls_;
  std::vector<int> fetchCompletions_;
  int actionCompletions_ = 0;
  std::size_t answered_ = 0;
  int presentations_ = 0;
  int expansions_ = 0;
};

TEST_F(InterceptionTest, LibraryWorkHappensBeforeTheHostRunsWithTheSameArguments) {
  install(hostClass("HostAppDelegate", kAll));
  QuorviaSDK::initWithAppToken("app-token", std::nullopt);
  struct Case {
    const char* name;
    std::string_view selector;
    std::vector<std::string> requests, lines;
    int presented = 0;
    std::string identifier = "Yes";
    bool withPoll = true, expanded = false;
  };
  const std::string reply = "POST /polls/7/replies/ reply_text=",
                    shown = "QuorviaSDK: Presenting poll: Q?",
                    noToken = "QuorviaSDK: Missing user access token!";
  const Case cases[] = {
      {"token",
       kToken,
       {"POST /endpoints/ push_token=0001abff10&app_token=app-token&platform=ios"},
       {kTokenLine}},
      {"failure", kFail, {}, {kRegistrationFailedLine}},
      {"poll", kReceive, {}, {shown}, 1},
      {"no poll", kReceive, {}, {}, 0, "", false},
      {"poll, fetch", kFetch, {}, {shown}, 1},
      {"action", kAction, {reply + "Yes"}, {noToken}},
      {"response info", kResponseInfo, {reply + "Yes"}, {noToken}},
      // Only the response-info callback treats the default action apart.
      {"default action", kAction, {reply + kDefaultAction}, {noToken}, 0, kDefaultAction},
      // Deliberately, there it skips the host, and nobody completes it.
      {"default action, response info", kResponseInfo, {}, {shown}, 1, kDefaultAction, true, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    log_.clear();
    hostCalls_.clear();
    const std::size_t requestsBefore = transport_->requestCount();
    const int presentedBefore = presentations_;
    auto arguments = argumentsFor(c.selector, c.identifier);
    if (!c.withPoll) arguments.userInfo = Value{{"aps", {{"alert", "hello"}}}};
    EXPECT_TRUE(deliver(c.selector, arguments));

    std::vector<std::string> sent;
    for (std::size_t i = requestsBefore; i < transport_->requestCount(); ++i)
      sent.push_back(transport_->requestLines()[i] + " " + transport_->bodyText(i));
    EXPECT_EQ(sent, c.requests);
    EXPECT_EQ(log_.lines(), c.lines);
    EXPECT_EQ(presentations_ - presentedBefore, c.presented);
    EXPECT_EQ(expansions_, c.expanded ? 1 : 0) << "a received poll is shown collapsed";
    ASSERT_EQ(hostCalls_.size(), c.expanded ? 0u : 1u);
    if (c.expanded) continue;
    const auto& host = hostCalls_[0].arguments;
    EXPECT_EQ(hostCalls_[0].requestsBefore - requestsBefore, c.requests.size())
        << "sent before the host runs";
    EXPECT_EQ(hostCalls_[0].bannerShown, c.presented == 1) << "shown before the host runs";
    EXPECT_EQ(std::tie(host.application, host.deviceToken, host.userInfo, host.identifier,
                       host.responseInfo),
              std::tie(arguments.application, arguments.deviceToken, arguments.userInfo,
                       arguments.identifier, arguments.responseInfo));
    EXPECT_EQ(host.error.has_value(), arguments.error.has_value());
  }
  answerAll();
  EXPECT_TRUE(fetchCompletions_.empty());
  EXPECT_EQ(actionCompletions_, 0) << "a host that implements a callback completes it itself";
}

// What a delegate class lacks is added, and the library does its work and
// completes on its own: the fetch at once, a reply once it is answered. Only
// the class's own implementation counts: a callback it inherits is added too,
// and the superclass's implementation never runs. A second start-up installs
// nothing twice. Then a class that implements and completes every callback
// becomes the delegate: the first one's entries stay, so the library
// completes as well, yet the platform's completions run once only, however
// often they are called. A delegate set after start-up is left alone.
TEST_F(InterceptionTest, StartUpInterceptsItsDelegateOnceAndNothingCompletesTwice) {
  auto base = hostClass("HostBaseDelegate", {kToken, kFetch});
  for (const bool lacking : {true, false}) {
    SCOPED_TRACE(lacking ? "lacking" : "implementing");
    const Selectors implemented = lacking ? Selectors{kFail} : kAll;
    auto cls = hostClass("HostAppDelegate", implemented, lacking ? base : nullptr, true);
    install(cls);
    hostCalls_.clear();
    fetchCompletions_.clear();
    actionCompletions_ = 0;
    log_.clear();
    const std::size_t requestsBefore = transport_->requestCount();
    const int presentedBefore = presentations_;
    QuorviaSDK::initWithAppToken("app-token", std::nullopt);
    const auto methodsAfterFirst = platform::class_copyMethodList(cls.get());
    QuorviaSDK::initWithAppToken("app-token", std::nullopt);
    EXPECT_EQ(platform::class_copyMethodList(cls.get()), methodsAfterFirst);
    Value expected = Value::object();
    for (auto selector : {kToken, kReceive, kFetch, kAction, kResponseInfo})
      expected[std::string(selector)] = true;
    EXPECT_EQ(added(), expected);
    EXPECT_EQ(platform::class_copyMethodList(base.get()),
              (std::vector<std::string>{std::string(kFetch), std::string(kToken)}));

    for (auto selector : kAll) EXPECT_TRUE(deliver(selector)) << selector;
    ASSERT_EQ(hostCalls_.size(), implemented.size()) << "each of the class's own methods once";
    EXPECT_EQ(hostCalls_[0].selector, implemented[0]);
    // Two start-up fetches, one registration, two replies.
    EXPECT_EQ(transport_->requestCount() - requestsBefore, 5u);
    EXPECT_EQ(log_.count(kTokenLine), 1);
    EXPECT_EQ(log_.count(kRegistrationFailedLine), 1);
    EXPECT_EQ(fetchCompletions_.size(), 1u);
    EXPECT_EQ(actionCompletions_, lacking ? 1 : 2) << "the response info's waits for the reply";
    answerAll();
    EXPECT_EQ(log_.count("QuorviaSDK: Calling completionHandler for " + std::string(kResponseInfo)),
              1);
    for (const auto& host : hostCalls_) {
      if (host.arguments.completionHandler) host.arguments.completionHandler();
      if (host.arguments.fetchCompletionHandler) host.arguments.fetchCompletionHandler(2);
    }
    EXPECT_EQ(fetchCompletions_,
              std::vector<int>{lacking ? platform::UIBackgroundFetchResultNewData : 1})
        << "the host's own result, if it has one";
    EXPECT_EQ(actionCompletions_, 2) << "the two action callbacks' completions, once each";
    EXPECT_EQ(presentations_ - presentedBefore, 2);
    if (lacking) {  // The notification itself opened: the poll expanded, no reply, completed.
      EXPECT_TRUE(deliver(kResponseInfo, argumentsFor(kResponseInfo, kDefaultAction)));
      EXPECT_EQ(expansions_, 1);
      EXPECT_EQ(transport_->requestCount() - requestsBefore, 5u);
      EXPECT_EQ(actionCompletions_, 3);
    }
  }

  // Only the delegate at start-up is intercepted, not one set later.
  auto later = hostClass("LaterDelegate", {kToken});
  const auto methods = platform::class_copyMethodList(later.get());
  install(later);
  hostCalls_.clear();
  const std::size_t requests = transport_->requestCount();
  EXPECT_TRUE(deliver(kToken));
  EXPECT_FALSE(deliver(kFetch));
  EXPECT_EQ(platform::class_copyMethodList(later.get()), methods);
  EXPECT_EQ(hostCalls_.size(), 1u);
  EXPECT_EQ(transport_->requestCount(), requests) << "no registration by the library";
}

}  // namespace
}  // namespace quorvia::testing
