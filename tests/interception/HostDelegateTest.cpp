#include "interception/HostDelegateTest.h"

#include "quorvia/platform/Application.h"
#include "sdk/CallTrace.h"

namespace quorvia::testing {

std::shared_ptr<platform::Class> HostDelegateTest::makeDelegateClass(
    const std::string& name, const std::vector<std::string_view>& implemented,
    std::shared_ptr<platform::Class> superclass, HostCompletion completion) {
  auto cls = platform::Class::create(name, std::move(superclass));
  for (std::string_view selector : implemented) {
    auto calls = hostCalls_;
    platform::IMP imp = [calls, name, selector = std::string(selector), completion](
                            platform::Object&, const platform::MessageArguments& arguments) {
      auto& trace = detail::callTrace();
      HostCall call{name, selector, arguments, 0, 0, trace.presentPoll.load()};
      {
        std::lock_guard lock(trace.mu);
        call.deviceTokensBefore = trace.deviceTokens.size();
        call.repliesBefore = trace.replies.size();
      }
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

bool HostDelegateTest::deliver(std::string_view selector, platform::MessageArguments arguments) {
  return platform::deliverToApplicationDelegate(selector, std::move(arguments));
}

std::vector<HostCall> HostDelegateTest::hostCallsOf(std::string_view selector) const {
  std::vector<HostCall> calls;
  for (const auto& call : *hostCalls_) {
    if (call.selector == selector) calls.push_back(call);
  }
  return calls;
}

}  // namespace quorvia::testing
