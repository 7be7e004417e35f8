#include "HostDelegate.h"

#include "platform/ApplicationDelegateRuntime.h"

namespace quorvia::sim {
namespace {

void addHostMethods(platform::Class& cls, const std::vector<std::string>& selectors,
                    const std::shared_ptr<EventWriter>& events) {
  for (const std::string& selector : selectors) {
    platform::IMP imp = [events, selector, owner = cls.name()](
                            platform::Object&, const platform::MessageArguments& arguments) {
      events->write("hostCallback", {{"selector", selector}, {"class", owner}});
      if (arguments.fetchCompletionHandler) {
        arguments.fetchCompletionHandler(platform::UIBackgroundFetchResultNoData);
      }
      if (arguments.completionHandler) arguments.completionHandler();
    };
    platform::class_addMethod(&cls, selector, std::move(imp),
                              platform::applicationDelegateTypeEncoding(selector));
  }
}

}  // namespace

const std::vector<std::string>& applicationDelegateCallbacks() {
  static const std::vector<std::string> callbacks = {
      std::string(platform::kDidRegisterForRemoteNotificationsSelector),
      std::string(platform::kDidFailToRegisterForRemoteNotificationsSelector),
      std::string(platform::kDidReceiveRemoteNotificationSelector),
      std::string(platform::kDidReceiveRemoteNotificationFetchSelector),
      std::string(platform::kHandleActionSelector),
      std::string(platform::kHandleActionWithResponseInfoSelector)};
  return callbacks;
}

std::shared_ptr<platform::Object> makeHostDelegate(const std::string& className,
                                                   const HostDelegateSpec& spec,
                                                   std::shared_ptr<EventWriter> events) {
  auto base = platform::Class::create(className + "Base");
  addHostMethods(*base, spec.superclassImplements, events);
  auto cls = platform::Class::create(className, base);
  addHostMethods(*cls, spec.implements, events);
  return std::make_shared<platform::Object>(cls);
}

}  // namespace quorvia::sim
