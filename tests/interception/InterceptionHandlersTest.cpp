// What each intercepted callback does: the library's work, the call on to the
// host, and who completes the platform's completion handlers.
#include <gtest/gtest.h>

#include "interception/HostDelegateTest.h"
#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/Application.h"

namespace quorvia::testing {
namespace {

using platform::Value;

constexpr const char* kDefaultAction = "com.apple.UNNotificationDefaultActionIdentifier";
constexpr const char* kRegistrationFailedLine =
    "QuorviaSDK: Failed to register for remote notifications. Make sure Push Notifications is "
    "enabled in your target capabilities.";


class InterceptionHandlersTest : public HostDelegateTest {
 protected:
  // Starts with a delegate whose class implements `implemented` itself.
  void startWithHost(const std::vector<std::string_view>& implemented) {
    installDelegate(makeDelegateClass("HostAppDelegate", implemented));
    QuorviaSDK::initWithAppToken("app-token", std::nullopt);
  }
};

struct CompletionCase {
  const char* name;
  std::string_view selector;
  bool hostImplements;
  std::vector<int> fetchCompletions;
  int actionCompletions;
  friend void PrintTo(const CompletionCase& c, std::ostream* os) { *os << c.name; }
};

// One process per row: each needs fresh process-wide interception state.
class LibraryCompletesOnlyWhatTheHostCannot : public InterceptionHandlersTest,
                                              public ::testing::WithParamInterface<CompletionCase> {
};

TEST_P(LibraryCompletesOnlyWhatTheHostCannot, AfterTheCallThrough) {
  const CompletionCase& c = GetParam();
  startWithHost(c.hostImplements ? std::vector<std::string_view>{c.selector}
                                 : std::vector<std::string_view>{});
  ASSERT_TRUE(deliver(c.selector));
  EXPECT_EQ(*fetchCompletions_, c.fetchCompletions);
  EXPECT_EQ(*actionCompletions_, c.actionCompletions);
  EXPECT_EQ(hostCallsOf(c.selector).size(), c.hostImplements ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Callbacks, LibraryCompletesOnlyWhatTheHostCannot,
    ::testing::Values(
        CompletionCase{"FetchWithoutHost",
                       platform::kDidReceiveRemoteNotificationFetchSelector,
                       false,
                       {platform::UIBackgroundFetchResultNewData},
                       0},
        CompletionCase{
            "FetchWithHost", platform::kDidReceiveRemoteNotificationFetchSelector, true, {}, 0},
        CompletionCase{"ActionWithoutHost", platform::kHandleActionSelector, false, {}, 1},
        CompletionCase{"ActionWithHost", platform::kHandleActionSelector, true, {}, 0},
        // "Yes" is a reply: its completion is the reply's to call, never the handler's.
        CompletionCase{"ResponseInfoWithoutHost",
                       platform::kHandleActionWithResponseInfoSelector,
                       false,
                       {},
                       0},
        CompletionCase{
            "ResponseInfoWithHost", platform::kHandleActionWithResponseInfoSelector, true, {}, 0}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(InterceptionHandlersTest, HostReceivesTheCompletionAndCompletesOnce) {
  startWithHost(
      {platform::kDidReceiveRemoteNotificationFetchSelector, platform::kHandleActionSelector});
  deliver(platform::kDidReceiveRemoteNotificationFetchSelector);
  deliver(platform::kHandleActionSelector);
  EXPECT_TRUE(fetchCompletions_->empty());
  EXPECT_EQ(*actionCompletions_, 0);

  auto fetch = hostCallsOf(platform::kDidReceiveRemoteNotificationFetchSelector);
  ASSERT_EQ(fetch.size(), 1u);
  ASSERT_TRUE(fetch[0].arguments.fetchCompletionHandler);
  fetch[0].arguments.fetchCompletionHandler(2);
  fetch[0].arguments.fetchCompletionHandler(2);
  EXPECT_EQ(*fetchCompletions_, std::vector<int>{2});

  auto action = hostCallsOf(platform::kHandleActionSelector);
  ASSERT_EQ(action.size(), 1u);
  EXPECT_EQ(action[0].arguments.identifier, "Yes");
  EXPECT_EQ(action[0].arguments.userInfo, pollPayload_);
  ASSERT_TRUE(action[0].arguments.completionHandler);
  action[0].arguments.completionHandler();
  EXPECT_EQ(*actionCompletions_, 1);
}

class DefaultActionPresentsExpandedAndSkipsTheHost
    : public InterceptionHandlersTest,
      public ::testing::WithParamInterface<bool /*hostImplements*/> {};

TEST_P(DefaultActionPresentsExpandedAndSkipsTheHost, CompletesOnlyWithoutHost) {
  const bool hostImplements = GetParam();
  startWithHost(hostImplements
                    ? std::vector<std::string_view>{platform::kHandleActionWithResponseInfoSelector}
                    : std::vector<std::string_view>{});
  auto arguments = argumentsFor(platform::kHandleActionWithResponseInfoSelector);
  arguments.identifier = kDefaultAction;
  ASSERT_TRUE(deliver(platform::kHandleActionWithResponseInfoSelector, arguments));
  EXPECT_EQ(presentations(), 1);
  EXPECT_EQ(expansions(), 1) << "presented expanded";
  EXPECT_EQ(replyCount(), 0u);
  // Deliberately: the host is not called either way, and nobody completes
  // when the host has an implementation.
  EXPECT_TRUE(hostCalls_->empty());
  EXPECT_EQ(*actionCompletions_, hostImplements ? 0 : 1);
}

INSTANTIATE_TEST_SUITE_P(Host, DefaultActionPresentsExpandedAndSkipsTheHost, ::testing::Bool(),
                         [](const auto& info) {
                           return std::string(info.param ? "HostImplements" : "HostLacks");
                         });

TEST_F(InterceptionHandlersTest, DefaultActionElsewhereIsAReplyLikeAnyOther) {
  startWithHost({});
  auto arguments = argumentsFor(platform::kHandleActionSelector);
  arguments.identifier = kDefaultAction;
  deliver(platform::kHandleActionSelector, arguments);
  QuorviaSDK::handleActionWithIdentifier(std::string(kDefaultAction), pollPayload_);

  const auto replies = requestsTo("/replies/");
  ASSERT_EQ(replies.size(), 2u);
  for (std::size_t i : replies) {
    EXPECT_EQ(transport_->requestLines()[i], "POST /polls/7/replies/");
    EXPECT_EQ(transport_->bodyText(i), "reply_text=" + std::string(kDefaultAction));
  }
  // The reply operation gets no completion from either path: answering them
  // reaches nothing, and the callback's own completion is the library's,
  // since the host lacks it.
  EXPECT_EQ(*actionCompletions_, 1);
  answerAll();
  EXPECT_EQ(*actionCompletions_, 1);
  EXPECT_EQ(presentations(), 0);
}

TEST_F(InterceptionHandlersTest, YesThroughResponseInfoRepliesWithTheHostsCompletionThenCallsHost) {
  startWithHost({platform::kHandleActionWithResponseInfoSelector});
  ASSERT_TRUE(deliver(platform::kHandleActionWithResponseInfoSelector));

  const auto replies = requestsTo("/replies/");
  ASSERT_EQ(replies.size(), 1u);
  EXPECT_EQ(transport_->requestLines()[replies[0]], "POST /polls/7/replies/");
  EXPECT_EQ(transport_->bodyText(replies[0]), "reply_text=Yes");

  auto host = hostCallsOf(platform::kHandleActionWithResponseInfoSelector);
  ASSERT_EQ(host.size(), 1u);
  EXPECT_EQ(host[0].repliesBefore, 1u) << "the reply is sent before the host runs";
  EXPECT_EQ(host[0].arguments.identifier, "Yes");
  EXPECT_EQ(host[0].arguments.userInfo, pollPayload_);
  EXPECT_EQ(host[0].arguments.responseInfo,
            (Value{{"UIUserNotificationActionResponseTypedTextKey", "hi"}}));
  EXPECT_EQ(host[0].arguments.application, &platform::Application::sharedApplication());
  EXPECT_EQ(*actionCompletions_, 0);

  // The host implements the callback, so completing it is the host's duty:
  // the reply's completion leaves it alone.
  answerAll();
  EXPECT_EQ(*actionCompletions_, 0);
  host[0].arguments.completionHandler();
  EXPECT_EQ(*actionCompletions_, 1);
  host[0].arguments.completionHandler();
  EXPECT_EQ(*actionCompletions_, 1) << "the platform's completion is reached once at most";
}

TEST_F(InterceptionHandlersTest, RegistrationFailureLogsOnlyWhileDebugAndAlwaysCallsHost) {
  startWithHost({platform::kDidFailToRegisterForRemoteNotificationsSelector});
  for (bool debug : {true, false, true}) {
    SCOPED_TRACE(debug ? "debug on" : "debug off");
    QuorviaSDK::setDebug(debug);
    log_.clear();
    hostCalls_->clear();
    deliver(platform::kDidFailToRegisterForRemoteNotificationsSelector);
    EXPECT_EQ(log_.lines(), debug ? std::vector<std::string>{kRegistrationFailedLine}
                                  : std::vector<std::string>{});
    ASSERT_EQ(hostCalls_->size(), 1u);
    ASSERT_TRUE((*hostCalls_)[0].arguments.error);
    EXPECT_EQ((*hostCalls_)[0].arguments.error->code, 3010);
  }
}

TEST_F(InterceptionHandlersTest, DeviceTokenIsRegisteredThenHandedToTheHost) {
  startWithHost({platform::kDidRegisterForRemoteNotificationsSelector});
  log_.clear();
  deliver(platform::kDidRegisterForRemoteNotificationsSelector);
  EXPECT_EQ(log_.lines(),
            std::vector<std::string>{"QuorviaSDK: Received device push token from iOS."});
  const auto registrations = requestsTo("/endpoints/");
  ASSERT_EQ(registrations.size(), 1u);
  EXPECT_EQ(transport_->requestLines()[registrations[0]], "POST /endpoints/");
  EXPECT_EQ(transport_->bodyText(registrations[0]),
            "push_token=0001abff10&app_token=app-token&platform=ios");
  auto host = hostCallsOf(platform::kDidRegisterForRemoteNotificationsSelector);
  ASSERT_EQ(host.size(), 1u);
  EXPECT_EQ(host[0].deviceTokensBefore, 1u);
  EXPECT_EQ(host[0].arguments.deviceToken, token_);
}

TEST_F(InterceptionHandlersTest, ReceivedPollIsPresentedCollapsedBeforeTheHostRuns) {
  startWithHost({platform::kDidReceiveRemoteNotificationSelector,
                 platform::kDidReceiveRemoteNotificationFetchSelector});
  struct Case {
    std::string_view selector;
    std::optional<Value> payload;
    int presented;
  };
  const Value noPoll = Value{{"aps", {{"alert", "hello"}}}};
  const std::vector<Case> cases = {
      {platform::kDidReceiveRemoteNotificationSelector, pollPayload_, 1},
      {platform::kDidReceiveRemoteNotificationSelector, noPoll, 0},
      {platform::kDidReceiveRemoteNotificationSelector, std::nullopt, 0},
      {platform::kDidReceiveRemoteNotificationFetchSelector, pollPayload_, 1},
      {platform::kDidReceiveRemoteNotificationFetchSelector, noPoll, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.selector) + " " + platform::describe(c.payload));
    hostCalls_->clear();
    const int presentedBefore = presentations();
    auto arguments = argumentsFor(c.selector);
    arguments.userInfo = c.payload;
    deliver(c.selector, arguments);
    EXPECT_EQ(presentations() - presentedBefore, c.presented);
    EXPECT_EQ(expansions(), 0) << "shown collapsed";
    ASSERT_EQ(hostCalls_->size(), 1u);
    EXPECT_EQ((*hostCalls_)[0].presentPollBefore - presentedBefore, c.presented);
    EXPECT_EQ((*hostCalls_)[0].arguments.userInfo, c.payload);
  }
  EXPECT_TRUE(fetchCompletions_->empty());
}

}  // namespace
}  // namespace quorvia::testing
