#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/Error.h"
#include "sdk/CallTrace.h"

namespace quorvia {

void QuorviaSDK::appDidBecomeActive() { fetchPolls(); }

// Placeholder until the service client lands: no request is made yet.
void QuorviaSDK::fetchPolls() { ++detail::callTrace().fetchPolls; }

void QuorviaSDK::parsePollsReponse(const platform::Value& response) {
  if (!response.is_object()) throw platform::unrecognizedSelector(response, "objectForKey:");
  const platform::Value* results = platform::valueForKey(response, "results");
  if (!results) return;
  if (!results->is_structured()) throw platform::unrecognizedSelector(*results, "count");
  if (results->empty()) return;
  if (!results->is_array()) throw platform::unrecognizedSelector(*results, "objectAtIndex:");
  // Only the first poll: the rest come again at the next activation.
  presentPollWithPollDict(&(*results)[0]);
}

}  // namespace quorvia
