#include "networking/SimpleNetworking.h"
#include "platform/Log.h"
#include "quorvia/platform/Error.h"
#include "service/PollService.h"
#include "service/ServiceEndpoint.h"

namespace quorvia::service {

using platform::Value;

void PollService::fetchPolls() {
  installAuthorizationHeaderFromKeychain(hooks_.log);  // silently without a token
  // The app token is escaped as one path segment, like a poll id.
  const std::string url = serviceBaseURL() + "/apps/" +
                          pathSegment(platform::describe(hooks_.appToken())) + "/polls/";
  SimpleNetworking::getJsonCachelessFromURL(
      url, Value::object(),
      [self = shared_from_this()](std::optional<Value> response,
                                  std::optional<platform::Error> error) {
        if (error) {
          // Unprefixed and always written, unlike the SDK's switchable lines.
          platform::NSLog(error->description());
          return;
        }
        if (!response) return;  // an undecodable body holds no polls
        try {
          self->parsePollsReponse(*response);
        } catch (...) {
          // A response or first poll of the wrong shape is dropped silently.
        }
      });
}

void PollService::parsePollsReponse(const Value& response) {
  if (!response.is_object()) throw platform::unrecognizedSelector(response, "objectForKey:");
  const Value* results = platform::valueForKey(response, "results");
  if (!results) return;
  if (!results->is_structured()) throw platform::unrecognizedSelector(*results, "count");
  if (results->empty()) return;
  if (!results->is_array()) throw platform::unrecognizedSelector(*results, "objectAtIndex:");
  // Only the first poll: the rest come again at the next activation.
  hooks_.presentPoll(&(*results)[0]);
}

}  // namespace quorvia::service
