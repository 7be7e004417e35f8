#pragma once

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <string_view>

namespace quorvia::devserver {

// Issues and checks the access tokens the service hands to registered devices: JSON Web Tokens
// signed with HMAC-SHA256 under one secret. Immutable after construction, so one instance may
// be used from any number of threads at once.
class AccessToken final {
 public:
  // `secret` is the HMAC key; any non-empty byte string.
  explicit AccessToken(std::string secret);

  // Returns the compact token ("header.payload.signature", base64url without padding) carrying
  // `claims` as its payload. `claims` must be a JSON object.
  std::string issue(const nlohmann::json& claims) const;

  // Returns the payload of `token` when it is a well-formed HS256 token whose signature matches
  // this secret and whose payload is a JSON object; nullopt for anything else (tampered, signed
  // with another key, another algorithm, truncated, not base64url, not JSON). Never throws.
  std::optional<nlohmann::json> verify(std::string_view token) const;

 private:
  std::string sign(std::string_view signingInput) const;

  std::string secret_;
};

// Returns `bytes` in base64url without padding. Exposed for tests that forge tokens.
std::string base64UrlEncode(std::string_view bytes);

// Decodes unpadded base64url text; nullopt when it is not valid base64url.
std::optional<std::string> base64UrlDecode(std::string_view text);

// Returns `count` random bytes from OpenSSL's generator as lowercase hex; empty on failure.
std::string randomHex(size_t count);

}  // namespace quorvia::devserver
