#pragma once
// Internal: the one change the client makes to a URL string before use.

#include <string>

namespace quorvia::networking {

/// `url` with every " " replaced by "%20" and nothing else escaped; both the
/// request and the cache list key use this form.
inline std::string spacesEscaped(const std::string& url) {
  std::string escaped;
  escaped.reserve(url.size());
  for (const char c : url) {
    if (c == ' ') {
      escaped += "%20";
    } else {
      escaped += c;
    }
  }
  return escaped;
}

}  // namespace quorvia::networking
