// Installing the library's handlers into the application delegate's class.
#include <gtest/gtest.h>

#include <algorithm>

#include "interception/HostDelegateTest.h"
#include "quorvia/QuorviaSDK.h"
#include "sdk/SDKState.h"
#include "quorvia/platform/Application.h"

namespace quorvia::testing {
namespace {

using platform::Value;

constexpr const char* kDeviceTokenLine = "QuorviaSDK: Received device push token from iOS.";
constexpr const char* kRegistrationFailedLine =
    "QuorviaSDK: Failed to register for remote notifications. Make sure Push Notifications is "
    "enabled in your target capabilities.";

Value addedMethodsFor(const std::vector<std::string_view>& selectors) {
  Value added = Value::object();
  for (auto selector : selectors) added[std::string(selector)] = true;
  return added;
}

std::vector<std::string_view> allBut(std::string_view implemented) {
  std::vector<std::string_view> rest;
  for (auto selector : allCallbacks()) {
    if (selector != implemented) rest.push_back(selector);
  }
  return rest;
}

void start(bool swizzling = true) {
  QuorviaSDK::initWithAppToken("app-token", std::nullopt, swizzling);
}

class InterceptionTest : public HostDelegateTest {};

TEST_F(InterceptionTest, OnlyTheTokenCallbackImplementedRunsLibraryThenHostAndAddsTheRest) {
  auto cls =
      makeDelegateClass("HostAppDelegate", {platform::kDidRegisterForRemoteNotificationsSelector});
  installDelegate(cls);
  start();

  // The five missing callbacks are recorded in installation order, keyed by selector text.
  EXPECT_EQ(sdk::SDKState::shared().interception.addedMethods(),
            addedMethodsFor(allBut(platform::kDidRegisterForRemoteNotificationsSelector)));
  EXPECT_EQ(platform::class_copyMethodList(cls.get()).size(), 12u);

  ASSERT_TRUE(deliver(platform::kDidRegisterForRemoteNotificationsSelector));
  auto tokenCalls = hostCallsOf(platform::kDidRegisterForRemoteNotificationsSelector);
  ASSERT_EQ(tokenCalls.size(), 1u);
  EXPECT_EQ(tokenCalls[0].deviceTokensBefore, 1u) << "the library registers before the host runs";
  EXPECT_EQ(tokenCalls[0].arguments.deviceToken, token_);
  EXPECT_EQ(log_.count(kDeviceTokenLine), 1);

  // The added callbacks run the library's work and lead to nothing of the host's.
  for (auto selector : allBut(platform::kDidRegisterForRemoteNotificationsSelector)) {
    EXPECT_TRUE(deliver(selector)) << selector;
  }
  EXPECT_EQ(hostCalls_->size(), 1u);
  EXPECT_EQ(log_.count(kRegistrationFailedLine), 1);
  EXPECT_EQ(presentations(), 2);
  EXPECT_EQ(replyCount(), 2u);
  EXPECT_EQ(*fetchCompletions_, std::vector<int>{platform::UIBackgroundFetchResultNewData});
  EXPECT_EQ(*actionCompletions_, 1) << "only the four-argument action completes here; the "
                                       "response-info one is handed to the reply";
}

TEST_F(InterceptionTest, InheritedOnlyImplementationCountsAsMissing) {
  auto base =
      makeDelegateClass("HostBaseDelegate", {platform::kDidRegisterForRemoteNotificationsSelector,
                                             platform::kDidReceiveRemoteNotificationFetchSelector});
  auto derived = makeDelegateClass(
      "HostAppDelegate", {platform::kDidFailToRegisterForRemoteNotificationsSelector}, base);
  installDelegate(derived);
  start();

  EXPECT_EQ(sdk::SDKState::shared().interception.addedMethods(),
            addedMethodsFor(allBut(platform::kDidFailToRegisterForRemoteNotificationsSelector)));
  for (auto selector : allCallbacks()) deliver(selector);

  // Only the class's own implementation is called on; the superclass's never runs.
  ASSERT_EQ(hostCalls_->size(), 1u);
  EXPECT_EQ((*hostCalls_)[0].owner, "HostAppDelegate");
  EXPECT_EQ(registrationCount(), 1u);
  EXPECT_EQ(*fetchCompletions_, std::vector<int>{platform::UIBackgroundFetchResultNewData});
  EXPECT_EQ(platform::class_copyMethodList(base.get()),
            (std::vector<std::string>{
                std::string(platform::kDidReceiveRemoteNotificationFetchSelector),
                std::string(platform::kDidRegisterForRemoteNotificationsSelector)}));
}

TEST_F(InterceptionTest, SecondStartUpInstallsNothingTwice) {
  struct Case {
    std::string name;
    std::vector<std::string_view> implemented;
  };
  // In this order: the entries of the second case would otherwise make the
  // library complete on behalf of the first case's host.
  for (const Case& c : std::vector<Case>{{"HostWithAll", allCallbacks()}, {"HostWithNone", {}}}) {
    SCOPED_TRACE(c.name);
    auto cls = makeDelegateClass(c.name, c.implemented);
    installDelegate(cls);
    hostCalls_->clear();
    fetchCompletions_->clear();
    *actionCompletions_ = 0;
    const std::size_t tokensBefore = registrationCount();
    const std::size_t repliesBefore = replyCount();
    const int presentedBefore = presentations();

    start();
    const auto methodsAfterFirst = platform::class_copyMethodList(cls.get());
    start();
    EXPECT_EQ(platform::class_copyMethodList(cls.get()), methodsAfterFirst);

    for (auto selector : allCallbacks()) deliver(selector);
    for (auto selector : c.implemented) EXPECT_EQ(hostCallsOf(selector).size(), 1u) << selector;
    EXPECT_EQ(hostCalls_->size(), c.implemented.size());
    EXPECT_EQ(registrationCount() - tokensBefore, 1u);
    EXPECT_EQ(replyCount() - repliesBefore, 2u);
    EXPECT_EQ(presentations() - presentedBefore, 2);
    const bool lacking = c.implemented.empty();
    EXPECT_EQ(fetchCompletions_->size(), lacking ? 1u : 0u);
    EXPECT_EQ(*actionCompletions_, lacking ? 1 : 0);
  }
}

TEST_F(InterceptionTest, SwizzlingOffLeavesTheClassUntouched) {
  auto cls =
      makeDelegateClass("HostAppDelegate", {platform::kDidRegisterForRemoteNotificationsSelector,
                                            platform::kDidReceiveRemoteNotificationFetchSelector});
  installDelegate(cls);
  const auto methodsBefore = platform::class_copyMethodList(cls.get());
  start(/*swizzling=*/false);

  EXPECT_EQ(platform::class_copyMethodList(cls.get()), methodsBefore);
  EXPECT_EQ(sdk::SDKState::shared().interception.addedMethods(), Value::object());
  EXPECT_FALSE(deliver(platform::kDidFailToRegisterForRemoteNotificationsSelector));
  EXPECT_TRUE(deliver(platform::kDidRegisterForRemoteNotificationsSelector));
  EXPECT_TRUE(deliver(platform::kDidReceiveRemoteNotificationFetchSelector));
  EXPECT_EQ(hostCalls_->size(), 2u);
  EXPECT_EQ(registrationCount(), 0u);
  EXPECT_EQ(presentations(), 0);
  EXPECT_TRUE(fetchCompletions_->empty());
}

TEST_F(InterceptionTest, OnlyTheDelegateAtStartUpIsIntercepted) {
  struct Case {
    std::string name;
    bool delegateAtStartUp;
  };
  for (const Case& c :
       std::vector<Case>{{"NoDelegateAtStartUp", false}, {"DelegateReplacedAfterStartUp", true}}) {
    SCOPED_TRACE(c.name);
    if (c.delegateAtStartUp) {
      installDelegate(makeDelegateClass("FirstDelegate", {}));
    } else {
      platform::Application::sharedApplication().setDelegate(nullptr);
      EXPECT_FALSE(deliver(platform::kDidRegisterForRemoteNotificationsSelector));
    }
    start();
    EXPECT_EQ(sdk::SDKState::shared().interception.addedMethods().size(), c.delegateAtStartUp ? 6u : 0u);

    auto later = makeDelegateClass("LaterDelegate", allCallbacks());
    const auto methodsBefore = platform::class_copyMethodList(later.get());
    installDelegate(later);
    hostCalls_->clear();
    const std::size_t tokensBefore = registrationCount();
    for (auto selector : allCallbacks()) deliver(selector);
    EXPECT_EQ(platform::class_copyMethodList(later.get()), methodsBefore);
    EXPECT_EQ(hostCalls_->size(), 6u);
    EXPECT_EQ(registrationCount(), tokensBefore);
    EXPECT_EQ(replyCount(), 0u);
  }
}

// A delegate class that lacked the callbacks was intercepted first, then a
// delegate that implements them and completes them itself; the entries of
// the first stay, yet the platform's completion must run once only.
TEST_F(InterceptionTest, CompletionNeverReachesThePlatformTwice) {
  installDelegate(makeDelegateClass("FirstDelegate", {}));
  start();
  installDelegate(
      makeDelegateClass("HostAppDelegate", allCallbacks(), nullptr, HostCompletion::kAtOnce));
  start();

  deliver(platform::kDidReceiveRemoteNotificationFetchSelector);
  EXPECT_EQ(*fetchCompletions_, std::vector<int>{1}) << "the host's own result, once";

  deliver(platform::kHandleActionSelector);
  EXPECT_EQ(*actionCompletions_, 1);

  *actionCompletions_ = 0;
  deliver(platform::kHandleActionWithResponseInfoSelector);
  EXPECT_EQ(*actionCompletions_, 1);
  // The first delegate's entries still say the library owns the completion,
  // so the reply's completion calls its copy of the handler: it must not reach
  // the platform again.
  ASSERT_EQ(replyCount(), 2u) << "both action callbacks reply";
  answerAll();
  EXPECT_TRUE(log_.contains(
      "QuorviaSDK: Calling completionHandler for application:handleActionWithIdentifier:"
      "forRemoteNotification:withResponseInfo:completionHandler:"));
  EXPECT_EQ(*actionCompletions_, 1) << "the reply's copy of a completed handler does nothing";
}

}  // namespace
}  // namespace quorvia::testing
