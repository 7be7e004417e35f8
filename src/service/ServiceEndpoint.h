#pragma once
// Internal: the service's origin and the authorisation header every call but
// user info installs from the stored access token.

#include <string>

namespace quorvia::service {

/// The origin every endpoint path is appended to: the build-time constant, or
/// QUORVIA_SERVICE_BASE_URL from the environment (read once per process).
const std::string& serviceBaseURL();

/// Keychain service and account of the access token.
inline constexpr const char* kTokenService = "polls";
inline constexpr const char* kTokenAccount = "user_token";

/// Whether the keychain holds an access token.
bool hasStoredAccessToken();

/// Reads the stored access token and makes "Authorization: JWT <token>" the
/// header of every later request. A token holding CR or LF is refused with a
/// log line and the header fields stay as they were. Returns false when no
/// token is stored.
bool installAuthorizationHeaderFromKeychain();

/// Whether `value` can travel in a header line (no CR, no LF).
bool isSafeHeaderValue(const std::string& value);

}  // namespace quorvia::service
