#include "interception/HostDelegateTest.h"

#include "quorvia/platform/Application.h"
#include "quorvia/QuorviaSDK.h"
#include "sdk/SDKState.h"
#include "ui/QVNotificationView.h"
#include "support/FakeTransport.h"

namespace quorvia::testing {

void HostDelegateTest::SetUp() {
  PlatformTest::SetUp();
  transport_ = FakeTransport::install();
}

std::vector<std::size_t> HostDelegateTest::requestsTo(const std::string& part) const {
  std::vector<std::size_t> indexes;
  const auto lines = transport_->requestLines();
  for (std::size_t i = 0; i < lines.size(); ++i)
    if (lines[i].find(part) != std::string::npos) indexes.push_back(i);
  return indexes;
}

void HostDelegateTest::answerAll(const std::string& body) {
  for (; answered_ < transport_->requestCount(); ++answered_) transport_->respond(answered_, 200, body);
  drain();
}

std::shared_ptr<platform::Class> HostDelegateTest::makeDelegateClass(
    const std::string& name, const std::vector<std::string_view>& implemented,
    std::shared_ptr<platform::Class> superclass, HostCompletion completion) {
  auto cls = platform::Class::create(name, std::move(superclass));
  for (std::string_view selector : implemented) {
    auto calls = hostCalls_;
    platform::IMP imp = [this, calls, name, selector = std::string(selector), completion](
                            platform::Object&, const platform::MessageArguments& arguments) {
      HostCall call{name, selector, arguments, registrationCount(), replyCount(),
                    presentationsIncludingCurrent()};
      calls->push_back(std::move(call));
      if (completion == HostCompletion::kAtOnce) {
        if (arguments.fetchCompletionHandler) arguments.fetchCompletionHandler(1);
        if (arguments.completionHandler) arguments.completionHandler();
      }
    };
    platform::class_addMethod(cls.get(), selector, std::move(imp),
                              platform::applicationDelegateTypeEncoding(selector));
  }
  return cls;
}

std::shared_ptr<platform::Object> HostDelegateTest::installDelegate(
    std::shared_ptr<platform::Class> cls) {
  auto delegate = std::make_shared<platform::Object>(std::move(cls));
  platform::Application::sharedApplication().setDelegate(delegate);
  return delegate;
}

platform::MessageArguments HostDelegateTest::argumentsFor(std::string_view selector) {
  platform::MessageArguments arguments;
  arguments.application = &platform::Application::sharedApplication();
  if (selector == platform::kDidRegisterForRemoteNotificationsSelector) {
    arguments.deviceToken = token_;
  } else if (selector == platform::kDidFailToRegisterForRemoteNotificationsSelector) {
    arguments.error = platform::Error{"NSCocoaErrorDomain", 3010, platform::Value::object()};
  } else if (selector == platform::kDidReceiveRemoteNotificationSelector) {
    arguments.userInfo = pollPayload_;
  } else if (selector == platform::kDidReceiveRemoteNotificationFetchSelector) {
    arguments.userInfo = pollPayload_;
    arguments.fetchCompletionHandler = [counts = fetchCompletions_](int result) {
      counts->push_back(result);
    };
  } else {
    arguments.identifier = "Yes";
    arguments.userInfo = pollPayload_;
    if (selector == platform::kHandleActionWithResponseInfoSelector) {
      arguments.responseInfo =
          platform::Value{{"UIUserNotificationActionResponseTypedTextKey", "hi"}};
    }
    arguments.completionHandler = [count = actionCompletions_] { ++*count; };
  }
  return arguments;
}

bool HostDelegateTest::deliver(std::string_view selector) {
  return deliver(selector, argumentsFor(selector));
}

int HostDelegateTest::presentationsIncludingCurrent() const {
  return presentations_ + (sdk::SDKState::shared().banner->presentedPollView() ? 1 : 0);
}

bool HostDelegateTest::deliver(std::string_view selector, platform::MessageArguments arguments) {
  const bool delivered = platform::deliverToApplicationDelegate(selector, std::move(arguments));
  // A banner a delivery showed is counted and slid out again, so that the
  // next delivery may show one too.
  sdk::SDKState& state = sdk::SDKState::shared();
  if (auto view = state.banner->presentedPollView()) {
    ++presentations_;
    expansions_ += view->showOptions() ? 1 : 0;
    state.banner->hideNotificationView(view);
    advance(0.3);
  }
  return delivered;
}

std::vector<HostCall> HostDelegateTest::hostCallsOf(std::string_view selector) const {
  std::vector<HostCall> calls;
  for (const auto& call : *hostCalls_) {
    if (call.selector == selector) calls.push_back(call);
  }
  return calls;
}

}  // namespace quorvia::testing
