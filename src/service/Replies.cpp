#include <atomic>

#include "quorvia/QuorviaSDK.h"
#include "quorvia/keychain/LKKeychain.h"
#include "quorvia/networking/SimpleNetworking.h"
#include "quorvia/platform/Application.h"
#include "quorvia/platform/Error.h"
#include "quorvia/platform/Log.h"
#include "quorvia/service/QVModelPoll.h"
#include "service/ServiceEndpoint.h"

namespace quorvia {
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

std::uint64_t QuorviaSDK::currentReplyBackgroundTask() { return bgTask.load(); }

void QuorviaSDK::sendReplyWithIdentifier(const std::optional<std::string>& identifier,
                                         const Value& userInfo,
                                         CompletionHandler completionHandler) {
  try {
    if (!userInfo.is_object()) throw platform::unrecognizedSelector(userInfo, "objectForKey:");
    const auto poll = QVModelPoll::objectWithDictionary(platform::valueForKey(userInfo, "poll"));
    const Value* pollId = poll->objectId() ? &*poll->objectId() : nullptr;
    sendReplyWithIdentifier(identifier, pollId, std::move(completionHandler));
  } catch (const std::exception& e) {
    platform::NSLog(e.what());
  }
}

void QuorviaSDK::sendReplyWithIdentifier(const std::optional<std::string>& identifier,
                                         const Value* pollId,
                                         CompletionHandler completionHandler) {
  try {
    // A warning, not a refusal: the reply still goes out with "(null)" in its path.
    if (!pollId) log("Poll id is nil!");

    auto& app = platform::Application::sharedApplication();
    bgTask = app.beginBackgroundTaskWithName("MyTask", [] { endTrackedBackgroundTask(); });

    Value body = Value::object();
    if (identifier) body["reply_text"] = *identifier;

    if (!service::installAuthorizationHeaderFromKeychain()) log("Missing user access token!");

    SimpleNetworking::postToURL(
        service::serviceBaseURL() + "/polls/" + platform::describe(pollId) + "/replies/", body,
        [identifier, handler = std::move(completionHandler)](std::optional<Value>,
                                                             std::optional<platform::Error> error) {
          if (error) {
            log("Failed to send poll reply: " + error->description());
          } else {
            log("Successfuly sent reply: " + platform::describe(identifier));
          }
          // Whichever path delivered the reply, only an SDK-supplied response-info
          // callback means nobody else will complete the platform's call.
          if (handler) {
            const Value* added =
                platform::valueForKey(sharedInstance()->addedMethods(), kResponseInfoSelector);
            if (added && added->is_boolean() && added->get<bool>()) {
              log(std::string("Calling completionHandler for ") + kResponseInfoSelector);
              handler();
            }
          }
          endTrackedBackgroundTask();
        });
  } catch (const std::exception& e) {
    platform::NSLog(e.what());
  }
}

}  // namespace quorvia
