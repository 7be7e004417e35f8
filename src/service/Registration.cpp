#include "keychain/LKKeychain.h"
#include "networking/SimpleNetworking.h"
#include "service/PollService.h"
#include "service/ServiceEndpoint.h"

namespace quorvia::service {

using platform::Value;

void PollService::setDeviceToken(const std::optional<platform::Bytes>& token) {
  if (!token) return;
  Value body = Value::object();
  body["push_token"] = platform::hexString(*token);
  // Keyed-subscript semantics: with no app token yet the key is simply absent.
  if (const auto appToken = hooks_.appToken()) body["app_token"] = *appToken;
  body["platform"] = "ios";

  // A first registration is expected to go out without a header.
  if (hasStoredAccessToken()) installAuthorizationHeaderFromKeychain(hooks_.log);

  SimpleNetworking::postToURL(
      serviceBaseURL() + "/endpoints/", body,
      [log = hooks_.log, registered = hooks_.registered, pushToken = body["push_token"]](
          std::optional<Value> response, std::optional<platform::Error> error) {
        if (registered) registered(pushToken.get<std::string>(), error);
        if (error) {
          log("Failed registering device push token: " + error->description());
          return;
        }
        log("Successfully registered device push token.");
        const Value* accessToken = response ? platform::valueForKey(*response, "access_token") : nullptr;
        if (!accessToken) return;
        if (!accessToken->is_string() ||
            !isAcceptableAccessToken(accessToken->get_ref<const std::string&>())) {
          // Stored, such a token would fail or forge every later request; the
          // token already stored stays.
          log("Ignored an access token that is not one line of printable text of at most 8 KiB.");
          return;
        }
        LKKeychain::setPassword(accessToken->get<std::string>(), kTokenService, kTokenAccount);
      });
}

}  // namespace quorvia::service
