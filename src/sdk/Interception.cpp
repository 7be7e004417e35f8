#include "sdk/Interception.h"

#include <atomic>
#include <memory>
#include <string>
#include <utility>

#include "platform/Guard.h"
#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/Application.h"
#include "platform/ApplicationDelegateRuntime.h"
#include "sdk/BannerController.h"
#include "sdk/Events.h"
#include "sdk/SDKState.h"
#include "service/PollService.h"

namespace quorvia::sdk {
namespace {

using platform::Class;
using platform::MessageArguments;
using platform::Object;
using platform::Value;

constexpr std::string_view kEmptySelector = "empty";
constexpr std::string_view kDefaultActionIdentifier =
    "com.apple.UNNotificationDefaultActionIdentifier";

const Value* pollOf(const std::optional<Value>& payload) {
  return payload ? platform::valueForKey(*payload, "poll") : nullptr;
}

bool registerToken(MessageArguments& a) {
  QuorviaSDK::log("Received device push token from iOS.");
  QuorviaSDK::setDeviceToken(a.deviceToken);
  return true;
}

bool registrationFailed(MessageArguments& a) {
  // The error itself is deliberately left out of the line.
  QuorviaSDK::log(
      "Failed to register for remote notifications. Make sure Push Notifications is enabled in "
      "your target capabilities.");
  Events::shared().emit(&Observer::deviceRegistrationFailed,
                        RegistrationFailure{RegistrationFailure::Stage::kPushToken,
                                            a.error ? a.error->description() : std::string()});
  return true;
}

bool receive(MessageArguments& a) {
  QuorviaSDK::handleRemoteNotification(a.userInfo);
  return true;
}

bool act(MessageArguments& a) {
  // The identifier is not examined: the default action goes on like any other.
  QuorviaSDK::handleActionWithIdentifier(a.identifier, a.userInfo);
  return true;
}

bool actWithResponseInfo(MessageArguments& a) {
  SDKState& sdk = SDKState::shared();
  if (a.identifier == kDefaultActionIdentifier) {
    // The user opened the notification itself: show the poll expanded.
    platform::runDroppingExceptions("Default notification action", [&] {
      auto view = sdk.banner->presentPollWithPollDict(pollOf(a.userInfo));
      sdk.banner->showOptionsForNotificationView(view);
    });
    // Deliberately asymmetric with the reply branch: the host is not called,
    // and when it implements this callback nobody completes it. Hosts already
    // integrated depend on this; keep it.
    if (a.completionHandler &&
        sdk.interception.hostLacks(platform::kHandleActionWithResponseInfoSelector)) {
      a.completionHandler();
    }
    return false;
  }
  // The reply decides when the completion runs; the host gets it as well.
  sdk.service->sendReplyWithIdentifier(a.identifier, a.userInfo, a.completionHandler);
  return true;
}

// The same completion, callable any number of times and by any holder, that
// reaches the platform's at most once: the host, the reply and the library
// share it, so no path completes twice.
template <typename... Args>
std::function<void(Args...)> completingOnce(std::function<void(Args...)> handler) {
  if (!handler) return handler;
  auto called = std::make_shared<std::atomic<bool>>(false);
  return [handler = std::move(handler), called](Args... args) {
    if (!called->exchange(true)) handler(args...);
  };
}

// What every intercepted callback runs, with the host's delegate as `self`.
void intercept(const InterceptedCallback& row, Object& self, const MessageArguments& given) {
  MessageArguments a = given;
  a.completionHandler = completingOnce(std::move(a.completionHandler));
  a.fetchCompletionHandler = completingOnce(std::move(a.fetchCompletionHandler));
  bool callHost = true;
  // A failure in the library's part stops here, so that the host still runs.
  platform::runDroppingExceptions(row.selector, [&] { callHost = row.work(a); });
  if (callHost) self.send(row.yp_selector, a);
  if (row.completion != Completion::kLibraryIfHostLacks ||
      !SDKState::shared().interception.hostLacks(row.selector)) {
    return;
  }
  if (a.fetchCompletionHandler) a.fetchCompletionHandler(platform::UIBackgroundFetchResultNewData);
  if (a.completionHandler) a.completionHandler();
}

// The library's own class in the delegate-class runtime: its methods are the
// handlers and `empty`, whose implementations swizzle() copies into the
// delegate's class. Created once, never freed.
Class* libraryClass() {
  static const std::shared_ptr<Class>* const owner = [] {
    auto* owner = new std::shared_ptr<Class>(Class::create("QuorviaSDK"));
    Class* c = owner->get();
    for (const InterceptedCallback& row : interceptedCallbacks()) {
      platform::class_addMethod(
          c, row.yp_selector,
          [&row](Object& self, const MessageArguments& a) { intercept(row, self, a); },
          row.typeEncoding);
    }
    platform::class_addMethod(
        c, kEmptySelector, [](Object&, const MessageArguments&) {},
        platform::kNoArgumentsTypeEncoding);
    return owner;
  }();
  return owner->get();
}

}  // namespace

const std::vector<InterceptedCallback>& interceptedCallbacks() {
  static const auto* const table = new std::vector<InterceptedCallback>{
      {platform::kDidRegisterForRemoteNotificationsSelector,
       "yp_application:didRegisterForRemoteNotificationsWithDeviceToken:",
       platform::kTwoObjectsTypeEncoding, Completion::kNone, registerToken},
      {platform::kDidFailToRegisterForRemoteNotificationsSelector,
       "yp_application:didFailToRegisterForRemoteNotificationsWithError:",
       platform::kTwoObjectsTypeEncoding, Completion::kNone, registrationFailed},
      {platform::kDidReceiveRemoteNotificationSelector,
       "yp_application:didReceiveRemoteNotification:", platform::kTwoObjectsTypeEncoding,
       Completion::kNone, receive},
      {platform::kDidReceiveRemoteNotificationFetchSelector,
       "yp_application:didReceiveRemoteNotification:fetchCompletionHandler:",
       platform::kTwoObjectsAndBlockTypeEncoding, Completion::kLibraryIfHostLacks, receive},
      {platform::kHandleActionSelector,
       "yp_application:handleActionWithIdentifier:forRemoteNotification:completionHandler:",
       platform::kThreeObjectsAndBlockTypeEncoding, Completion::kLibraryIfHostLacks, act},
      {platform::kHandleActionWithResponseInfoSelector,
       "yp_application:handleActionWithIdentifier:forRemoteNotification:withResponseInfo:"
       "completionHandler:",
       platform::kFourObjectsAndBlockTypeEncoding, Completion::kReply, actWithResponseInfo},
  };
  return *table;
}

bool Interception::hostLacks(std::string_view selector) const {
  const Value* added = platform::valueForKey(addedMethods_, selector);
  return added && added->is_boolean() && added->get<bool>();
}

void Interception::swizzle() {
  // Held while the class changes, so the target cannot go away meanwhile.
  std::shared_ptr<Object> delegate = platform::delegateObject(platform::Application::sharedApplication());
  Class* target = platform::object_getClass(delegate.get());
  for (const InterceptedCallback& row : interceptedCallbacks()) {
    swizzleMethodForClass(target, row.selector, row.yp_selector);
  }
}

void Interception::swizzleMethodForClass(Class* cls, std::string_view originalSelector,
                                         std::string_view swizzledSelector) {
  const platform::Method* originalMethod = platform::class_getInstanceMethod(cls, originalSelector);
  const platform::Method* swizzledMethod =
      platform::class_getInstanceMethod(libraryClass(), swizzledSelector);
  const platform::Method* emptyMethod =
      platform::class_getInstanceMethod(libraryClass(), kEmptySelector);

  // Succeeds only when the class itself lacks the callback; an inherited one
  // counts as missing.
  const bool didAddMethod = platform::class_addMethod(
      cls, originalSelector, platform::method_getImplementation(swizzledMethod),
      platform::method_getTypeEncoding(swizzledMethod));
  if (didAddMethod) {
    platform::class_replaceMethod(cls, swizzledSelector,
                                  platform::method_getImplementation(emptyMethod),
                                  platform::method_getTypeEncoding(emptyMethod));
    addedMethods_[std::string(originalSelector)] = true;
  } else {
    // Fails harmlessly on a second run: the handler's name is already taken.
    platform::class_addMethod(cls, swizzledSelector,
                              platform::method_getImplementation(originalMethod),
                              platform::method_getTypeEncoding(originalMethod));
    platform::class_replaceMethod(cls, originalSelector,
                                  platform::method_getImplementation(swizzledMethod),
                                  platform::method_getTypeEncoding(swizzledMethod));
  }
}

}  // namespace quorvia::sdk
