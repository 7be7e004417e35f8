#include "quorvia/QuorviaSDK.h"
#include "quorvia/networking/SimpleNetworking.h"
#include "quorvia/platform/Error.h"
#include "quorvia/platform/Log.h"
#include "service/ServiceEndpoint.h"

namespace quorvia {

using platform::Value;

void QuorviaSDK::appDidBecomeActive() { fetchPolls(); }

void QuorviaSDK::fetchPolls() {
  service::installAuthorizationHeaderFromKeychain();  // silently without a token
  const std::string url = service::serviceBaseURL() + "/apps/" +
                          platform::describe(currentAppToken()) + "/polls/";
  SimpleNetworking::getJsonCachelessFromURL(
      url, Value::object(),
      [self = shared_from_this()](std::optional<Value> response,
                                  std::optional<platform::Error> error) {
        if (error) {
          // Unprefixed and always written, unlike the SDK's gated lines.
          platform::NSLog(error->description());
          return;
        }
        if (!response) return;  // an undecodable body holds no polls
        try {
          self->parsePollsReponse(*response);
        } catch (...) {
          // A response of the wrong shape is dropped silently.
        }
      });
}

void QuorviaSDK::parsePollsReponse(const Value& response) {
  if (!response.is_object()) throw platform::unrecognizedSelector(response, "objectForKey:");
  const Value* results = platform::valueForKey(response, "results");
  if (!results) return;
  if (!results->is_structured()) throw platform::unrecognizedSelector(*results, "count");
  if (results->empty()) return;
  if (!results->is_array()) throw platform::unrecognizedSelector(*results, "objectAtIndex:");
  // Only the first poll: the rest come again at the next activation.
  presentPollWithPollDict(&(*results)[0]);
}

}  // namespace quorvia
