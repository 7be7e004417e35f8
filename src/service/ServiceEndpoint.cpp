#include "service/ServiceEndpoint.h"

#include <cstdlib>
#include <mutex>

#include "quorvia/QuorviaSDK.h"
#include "quorvia/keychain/LKKeychain.h"
#include "quorvia/networking/SimpleNetworking.h"

namespace quorvia::service {

const std::string& serviceBaseURL() {
  static std::once_flag once;
  static std::string* url = nullptr;
  std::call_once(once, [] {
    const char* fromEnvironment = std::getenv("QUORVIA_SERVICE_BASE_URL");
    url = new std::string(fromEnvironment && *fromEnvironment ? fromEnvironment
                                                              : QUORVIA_SERVICE_BASE_URL_DEFAULT);
  });
  return *url;
}

bool isSafeHeaderValue(const std::string& value) {
  return value.find_first_of("\r\n") == std::string::npos;
}

bool hasStoredAccessToken() {
  return LKKeychain::passwordForService(kTokenService, kTokenAccount).has_value();
}

bool installAuthorizationHeaderFromKeychain() {
  const std::optional<std::string> token = LKKeychain::passwordForService(kTokenService, kTokenAccount);
  if (!token) return false;
  if (!isSafeHeaderValue(*token)) {
    // A line break would let the stored value write headers of its own.
    QuorviaSDK::log("Refused to send an access token holding a line break.");
    return true;
  }
  SimpleNetworking::setHeaderFieldsWithDictionary(platform::Value{{"Authorization", "JWT " + *token}});
  return true;
}

}  // namespace quorvia::service
