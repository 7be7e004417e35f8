#include <fstream>

#include "platform/push/RemoteNotifications.h"
#include "push/PushTest.h"
#include "quorvia/QuorviaSDK.h"
#include "sdk/SDKState.h"
#include "quorvia/platform/Application.h"
#include "quorvia/platform/ApplicationDelegate.h"
#include "quorvia/platform/Runtime.h"
#include "ui/QVNotificationView.h"
#include "support/FakeTransport.h"

namespace quorvia::testing {
namespace {

using platform::MessageArguments;
using platform::Value;

struct DelegateCall {
  std::string selector;
  MessageArguments arguments;
};

const Value kPollPayload = {
    {"aps", {{"alert", "Coffee or tea?"}, {"category", "A.B"}}},
    {"poll",
     {{"id", 7}, {"question", "Coffee or tea?"}, {"options", {{{"text", "A"}}, {{"text", "B"}}}}}}};

class RemoteNotificationsTest : public PushTest {
 protected:
  /// Makes an object of a class implementing `selectors` (each recording its
  /// call) the application's delegate.
  void installDelegate(const std::vector<std::string_view>& selectors) {
    auto cls = platform::Class::create("PushTestDelegate");
    for (std::string_view selector : selectors) {
      platform::class_addMethod(
          cls.get(), selector,
          [calls = calls_, selector = std::string(selector)](platform::Object&,
                                                             const MessageArguments& arguments) {
            calls->push_back({selector, arguments});
          },
          platform::applicationDelegateTypeEncoding(selector));
    }
    platform::Application::sharedApplication().setDelegate(std::make_shared<platform::Object>(cls));
  }
  std::vector<DelegateCall> callsOf(std::string_view selector) const {
    std::vector<DelegateCall> found;
    for (const auto& call : *calls_)
      if (call.selector == selector) found.push_back(call);
    return found;
  }
  int notCalledLogs() const {
    return log_.count(
        "QuorviaSDK: a push's fetch completion handler was not called within 30 seconds");
  }

  std::shared_ptr<std::vector<DelegateCall>> calls_ = std::make_shared<std::vector<DelegateCall>>();
};

// Token and payload reach the delegate on the main queue, a payload through
// the fetch form when the delegate has it, else the plain form.
TEST_F(RemoteNotificationsTest, PushReachesTheDelegateFormItImplements) {
  struct Case {
    const char* name;
    std::vector<std::string_view> implemented;
    std::string_view expected;
  };
  const Case cases[] = {
      {"both forms",
       {platform::kDidRegisterForRemoteNotificationsSelector,
        platform::kDidReceiveRemoteNotificationSelector,
        platform::kDidReceiveRemoteNotificationFetchSelector},
       platform::kDidReceiveRemoteNotificationFetchSelector},
      {"plain form only",
       {platform::kDidRegisterForRemoteNotificationsSelector,
        platform::kDidReceiveRemoteNotificationSelector},
       platform::kDidReceiveRemoteNotificationSelector},
  };
  ASSERT_TRUE(startBroker());
  env_->setPushService(makeService());
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    calls_->clear();
    installDelegate(c.implemented);
    platform::Application::sharedApplication().registerForRemoteNotifications();
    const auto registered = platform::kDidRegisterForRemoteNotificationsSelector;
    ASSERT_TRUE(waitFor([&] { return !callsOf(registered).empty(); }));
    Publisher publisher(port_);
    ASSERT_TRUE(publisher.publish(deviceTopic(*callsOf(registered)[0].arguments.deviceToken),
                                  kPollPayload.dump()));
    ASSERT_TRUE(waitFor([&] { return !callsOf(c.expected).empty(); }));
    const MessageArguments arguments = callsOf(c.expected)[0].arguments;
    EXPECT_EQ(arguments.userInfo, kPollPayload);
    EXPECT_EQ(arguments.application, &platform::Application::sharedApplication());
    EXPECT_EQ(static_cast<bool>(arguments.fetchCompletionHandler),
              c.expected == platform::kDidReceiveRemoteNotificationFetchSelector);
    EXPECT_EQ(calls_->size(), 2u) << "one token, one payload, one form";
  }
  env_->setPushService(nullptr);
}

// The fetch completion counts once; one never called is logged when the
// platform's 30 s for the push are over, not before.
TEST_F(RemoteNotificationsTest, FetchCompletionIsHonouredOnce) {
  struct Case {
    int calls;
    int notCalledLogs;
    int calledAgainLogs;
  };
  const Case cases[] = {{0, 1, 0}, {1, 0, 0}, {3, 0, 2}};
  installDelegate({platform::kDidReceiveRemoteNotificationFetchSelector});
  for (const Case& c : cases) {
    SCOPED_TRACE(c.calls);
    calls_->clear();
    log_.clear();
    platform::deliverRemoteNotification(kPollPayload);
    ASSERT_EQ(calls_->size(), 1u);
    for (int i = 0; i < c.calls; ++i) calls_->front().arguments.fetchCompletionHandler(0);
    advance(29.9);
    EXPECT_EQ(notCalledLogs(), 0);
    advance(0.2);
    EXPECT_EQ(notCalledLogs(), c.notCalledLogs);
    EXPECT_EQ(log_.count("QuorviaSDK: a push's fetch completion handler was called again; ignored"),
              c.calledAgainLogs);
  }
}

// A host that lets the SDK intercept its delegate: a pushed poll shows the
// banner collapsed, and the SDK completes the fetch for the host.
TEST_F(RemoteNotificationsTest, PushedPollShowsTheBannerThroughInterception) {
  ASSERT_TRUE(startBroker());
  auto transport = FakeTransport::install();
  env_->setPushService(makeService());
  installDelegate({});
  QuorviaSDK::initWithAppToken("push-app", std::nullopt);
  ASSERT_TRUE(waitFor([&] {
    for (const auto& line : transport->requestLines())
      if (line.find("/endpoints/") != std::string::npos) return true;
    return false;
  })) << "the SDK registered the device's token";
  std::ifstream file(appData() / "push-device-token", std::ios::binary);
  const platform::Bytes token(std::istreambuf_iterator<char>(file), {});

  Publisher publisher(port_);
  ASSERT_TRUE(publisher.publish(deviceTopic(token), kPollPayload.dump()));
  ASSERT_TRUE(waitFor([] { return sdk::SDKState::shared().banner->presentedPollView() != nullptr; }));
  EXPECT_FALSE(sdk::SDKState::shared().banner->presentedPollView()->showOptions());
  advance(31);
  EXPECT_EQ(notCalledLogs(), 0);
  env_->setPushService(nullptr);
}

}  // namespace
}  // namespace quorvia::testing
