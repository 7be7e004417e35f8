#include "quorvia/QuorviaSDK.h"
#include "quorvia/keychain/LKKeychain.h"
#include "quorvia/networking/SimpleNetworking.h"
#include "service/ServiceEndpoint.h"

namespace quorvia {

using platform::Value;

void QuorviaSDK::setDeviceToken(const std::optional<platform::Bytes>& token) {
  if (!token) return;
  Value body = Value::object();
  body["push_token"] = platform::hexString(*token);
  // Keyed-subscript semantics: with no app token yet the key is simply absent.
  if (const auto appToken = currentAppToken()) body["app_token"] = *appToken;
  body["platform"] = "ios";

  // A first registration is expected to go out without a header.
  if (service::hasStoredAccessToken()) service::installAuthorizationHeaderFromKeychain();

  SimpleNetworking::postToURL(
      service::serviceBaseURL() + "/endpoints/", body,
      [](std::optional<Value> response, std::optional<platform::Error> error) {
        if (error) {
          log("Failed registering device push token: " + error->description());
          return;
        }
        log("Successfully registered device push token.");
        const Value* accessToken = response ? platform::valueForKey(*response, "access_token") : nullptr;
        if (!accessToken) return;
        if (!accessToken->is_string() ||
            !service::isSafeHeaderValue(accessToken->get_ref<const std::string&>())) {
          // Only a text that can travel in a header is kept; the stored token stays.
          log("Ignored an access token that is not a single line of text.");
          return;
        }
        LKKeychain::setPassword(accessToken->get<std::string>(), service::kTokenService,
                                service::kTokenAccount);
      });
}

}  // namespace quorvia
