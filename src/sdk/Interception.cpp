#include <memory>
#include <string>

#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/Application.h"
#include "quorvia/platform/ApplicationDelegate.h"
#include "quorvia/platform/Runtime.h"
#include "sdk/InterceptionTable.h"

namespace quorvia {
namespace {

using platform::Class;
using platform::MessageArguments;
using platform::Object;

// The library's own class in the delegate-class runtime: its methods are the
// handlers and empty(), whose implementations swizzle() copies into the
// delegate's class. Created once, never freed.
Class* libraryClass() {
  static const std::shared_ptr<Class>* const owner = [] {
    auto* created = new std::shared_ptr<Class>(Class::create("QuorviaSDK"));
    Class* c = created->get();
    platform::class_addMethod(
        c, detail::kYpDidRegisterForRemoteNotificationsSelector,
        [](Object& self, const MessageArguments& a) {
          QuorviaSDK::yp_application(self, a.application, a.deviceToken);
        },
        platform::kTwoObjectsTypeEncoding);
    platform::class_addMethod(
        c, detail::kYpDidFailToRegisterForRemoteNotificationsSelector,
        [](Object& self, const MessageArguments& a) {
          QuorviaSDK::yp_application(self, a.application, a.error);
        },
        platform::kTwoObjectsTypeEncoding);
    platform::class_addMethod(
        c, detail::kYpDidReceiveRemoteNotificationSelector,
        [](Object& self, const MessageArguments& a) {
          QuorviaSDK::yp_application(self, a.application, a.userInfo);
        },
        platform::kTwoObjectsTypeEncoding);
    platform::class_addMethod(
        c, detail::kYpDidReceiveRemoteNotificationFetchSelector,
        [](Object& self, const MessageArguments& a) {
          QuorviaSDK::yp_application(self, a.application, a.userInfo, a.fetchCompletionHandler);
        },
        platform::kTwoObjectsAndBlockTypeEncoding);
    platform::class_addMethod(
        c, detail::kYpHandleActionSelector,
        [](Object& self, const MessageArguments& a) {
          QuorviaSDK::yp_application(self, a.application, a.identifier, a.userInfo,
                                     a.completionHandler);
        },
        platform::kThreeObjectsAndBlockTypeEncoding);
    platform::class_addMethod(
        c, detail::kYpHandleActionWithResponseInfoSelector,
        [](Object& self, const MessageArguments& a) {
          QuorviaSDK::yp_application(self, a.application, a.identifier, a.userInfo, a.responseInfo,
                                     a.completionHandler);
        },
        platform::kFourObjectsAndBlockTypeEncoding);
    platform::class_addMethod(
        c, detail::kEmptySelector, [](Object&, const MessageArguments&) {},
        platform::kNoArgumentsTypeEncoding);
    return created;
  }();
  return owner->get();
}

}  // namespace

void QuorviaSDK::swizzle() {
  // Held while the class changes, so the target cannot go away meanwhile.
  std::shared_ptr<Object> delegate = platform::Application::sharedApplication().delegate();
  Class* target = platform::object_getClass(delegate.get());
  for (const auto& row : detail::kInterceptionTable) {
    swizzleMethodForClass(target, row.original, row.swizzled);
  }
}

void QuorviaSDK::swizzleMethodForClass(Class* cls, std::string_view originalSelector,
                                       std::string_view swizzledSelector) {
  const platform::Method* originalMethod = platform::class_getInstanceMethod(cls, originalSelector);
  const platform::Method* swizzledMethod =
      platform::class_getInstanceMethod(libraryClass(), swizzledSelector);
  const platform::Method* emptyMethod =
      platform::class_getInstanceMethod(libraryClass(), detail::kEmptySelector);

  // Succeeds only when the class itself lacks the callback; an inherited one
  // counts as missing.
  const bool didAddMethod = platform::class_addMethod(
      cls, originalSelector, platform::method_getImplementation(swizzledMethod),
      platform::method_getTypeEncoding(swizzledMethod));
  if (didAddMethod) {
    platform::class_replaceMethod(cls, swizzledSelector,
                                  platform::method_getImplementation(emptyMethod),
                                  platform::method_getTypeEncoding(emptyMethod));
    mutableAddedMethods()[std::string(originalSelector)] = true;
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

}  // namespace quorvia
