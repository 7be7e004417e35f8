#include <atomic>

#include "keychain/LKKeychain.h"
#include "networking/SimpleNetworking.h"
#include "platform/Log.h"
#include "quorvia/platform/Application.h"
#include "quorvia/platform/Error.h"
#include "service/PollService.h"
#include "service/QVModelPoll.h"
#include "service/ServiceEndpoint.h"

namespace quorvia::service {
namespace {

using platform::Value;

constexpr const char* kResponseInfoSelector =
    "application:handleActionWithIdentifier:forRemoteNotification:withResponseInfo:"
    "completionHandler:";

// One slot for the reply in flight, deliberately: a second reply overwrites it
// and expiry and completion end whichever task it holds at that moment.
std::atomic<platform::BackgroundTaskIdentifier> bgTask{0};

void endTrackedBackgroundTask() {
  const auto task = bgTask.exchange(platform::UIBackgroundTaskInvalid);
  if (task != platform::UIBackgroundTaskInvalid) {
    platform::Application::sharedApplication().endBackgroundTask(task);
  }
}

}  // namespace

platform::BackgroundTaskIdentifier PollService::currentReplyBackgroundTask() { return bgTask.load(); }

void PollService::sendReplyWithIdentifier(const std::optional<std::string>& identifier,
                                          const std::optional<Value>& userInfo,
                                          CompletionHandler completionHandler) {
  try {
    // A notification without a payload reads as nil: no poll, no id.
    if (userInfo && !userInfo->is_object()) {
      throw platform::unrecognizedSelector(*userInfo, "objectForKey:");
    }
    const auto poll =
        QVModelPoll::objectWithDictionary(userInfo ? platform::valueForKey(*userInfo, "poll") : nullptr);
    const Value* pollId = poll->objectId() ? &*poll->objectId() : nullptr;
    sendReplyWithIdentifier(identifier, pollId, std::move(completionHandler));
  } catch (const std::exception& e) {
    platform::NSLog(e.what());
  }
}

void PollService::sendReplyWithIdentifier(const std::optional<std::string>& identifier,
                                          const Value* pollId, CompletionHandler completionHandler) {
  try {
    // A warning, not a refusal: the reply still goes out with "(null)" in its path.
    if (!pollId) log("Poll id is nil!");

    auto& app = platform::Application::sharedApplication();
    bgTask = app.beginBackgroundTaskWithName("MyTask", [] { endTrackedBackgroundTask(); });

    Value body = Value::object();
    if (identifier) body["reply_text"] = *identifier;

    if (!installAuthorizationHeaderFromKeychain(hooks_.log)) log("Missing user access token!");

    // The id is escaped as one path segment, unlike a plain format: an id
    // such as "../../me#" must not steer the authenticated request elsewhere.
    SimpleNetworking::postToURL(
        serviceBaseURL() + "/polls/" + pathSegment(platform::describe(pollId)) + "/replies/", body,
        [hooks = hooks_, identifier, handler = std::move(completionHandler),
         pollIdCopy = pollId ? std::optional<Value>(*pollId) : std::nullopt](
            std::optional<Value>, std::optional<platform::Error> error) {
          if (hooks.replied) hooks.replied(pollIdCopy, identifier, error);
          if (error) {
            hooks.log("Failed to send poll reply: " + error->description());
          } else {
            hooks.log("Successfuly sent reply: " + platform::describe(identifier));
          }
          // Whichever path delivered the reply, only an SDK-supplied response-info
          // callback means nobody else will complete the platform's call.
          if (handler && hooks.hostLacks(kResponseInfoSelector)) {
            hooks.log(std::string("Calling completionHandler for ") + kResponseInfoSelector);
            handler();
          }
          endTrackedBackgroundTask();
        });
  } catch (const std::exception& e) {
    platform::NSLog(e.what());
  }
}

}  // namespace quorvia::service
