#pragma once
// Internal: the service's origin, the paths of its calls, and the
// authorisation header every call but user info installs from the stored
// access token.

#include <functional>
#include <string>
#include <string_view>

#include "quorvia/platform/Value.h"

namespace quorvia::service {

/// The origin every endpoint path is appended to: the environment's override,
/// else QUORVIA_SERVICE_BASE_URL from the process environment, else the
/// build-time constant (read once per process).
const std::string& serviceBaseURL();

/// `text` as one path segment: every byte that a path segment may not hold
/// as it stands is percent-encoded, so that an id can never add a segment,
/// a query or a fragment to the URL.
std::string pathSegment(std::string_view text);

/// Keychain service and account of the access token.
inline constexpr const char* kTokenService = "polls";
inline constexpr const char* kTokenAccount = "user_token";

/// The longest access token kept or sent.
inline constexpr std::size_t kMaxAccessTokenBytes = 8 * 1024;

/// Whether the keychain holds an access token.
bool hasStoredAccessToken();

/// Whether `token` can be kept and sent as a header value: one line of
/// printable text (no control characters, no line or paragraph separators)
/// of at most kMaxAccessTokenBytes, not empty and not blanks alone.
bool isAcceptableAccessToken(std::string_view token);

/// Reads the stored access token and makes "Authorization: JWT <token>" the
/// header of every later request. A stored token that is not acceptable is
/// refused with a line through `log` and the header fields stay as they
/// were. Returns false when no token is stored.
bool installAuthorizationHeaderFromKeychain(const std::function<void(std::string_view)>& log);

}  // namespace quorvia::service
