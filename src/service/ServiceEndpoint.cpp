#include "service/ServiceEndpoint.h"

#include <cstdlib>
#include <mutex>

#include "keychain/LKKeychain.h"
#include "networking/SimpleNetworking.h"
#include "quorvia/platform/Environment.h"

namespace quorvia::service {

const std::string& serviceBaseURL() {
  static std::once_flag once;
  static std::string* url = nullptr;
  std::call_once(once, [] {
    if (auto fromOptions = platform::environment().serviceBaseURL()) {
      url = new std::string(std::move(*fromOptions));
      return;
    }
    const char* fromEnvironment = std::getenv("QUORVIA_SERVICE_BASE_URL");
    url = new std::string(fromEnvironment && *fromEnvironment ? fromEnvironment
                                                              : QUORVIA_SERVICE_BASE_URL_DEFAULT);
  });
  return *url;
}

std::string pathSegment(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    // RFC 3986 pchar: unreserved, sub-delims, ":" and "@".
    const bool allowed = (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
                         (byte >= '0' && byte <= '9') ||
                         std::string_view("-._~!$&'()*+,;=:@").find(c) != std::string_view::npos;
    if (allowed) {
      out += c;
    } else {
      out += '%';
      out += kHex[byte >> 4];
      out += kHex[byte & 0xF];
    }
  }
  // A segment of dots alone would climb the path.
  if (out == "." || out == "..") return out == "." ? "%2E" : "%2E%2E";
  return out;
}

bool isAcceptableAccessToken(std::string_view token) {
  if (token.size() > kMaxAccessTokenBytes) return false;
  // Empty or blank, it would read back as no token, or go out as "JWT   ".
  if (token.find_first_not_of(" \t") == std::string_view::npos) return false;
  for (std::size_t i = 0; i < token.size(); ++i) {
    const auto byte = static_cast<unsigned char>(token[i]);
    if (byte < 0x20 || byte == 0x7F) return false;
    // U+0085 (NEL), U+2028 and U+2029 end a line for some readers.
    if (byte == 0xC2 && i + 1 < token.size() && static_cast<unsigned char>(token[i + 1]) == 0x85) {
      return false;
    }
    if (byte == 0xE2 && i + 2 < token.size() && static_cast<unsigned char>(token[i + 1]) == 0x80 &&
        (static_cast<unsigned char>(token[i + 2]) == 0xA8 ||
         static_cast<unsigned char>(token[i + 2]) == 0xA9)) {
      return false;
    }
  }
  return true;
}

bool hasStoredAccessToken() {
  return LKKeychain::passwordForService(kTokenService, kTokenAccount).has_value();
}

bool installAuthorizationHeaderFromKeychain(const std::function<void(std::string_view)>& log) {
  const std::optional<std::string> token = LKKeychain::passwordForService(kTokenService, kTokenAccount);
  if (!token) return false;
  if (!isAcceptableAccessToken(*token)) {
    // Such a value could write headers of its own, or fail every request.
    log("Refused to send an access token that is not one line of printable text.");
    return true;
  }
  SimpleNetworking::setHeaderFieldsWithDictionary(platform::Value{{"Authorization", "JWT " + *token}});
  return true;
}

}  // namespace quorvia::service
