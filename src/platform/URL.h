#pragma once
/// \file
/// URL strings checked as the platform's URL object is made (NSURL URLWithString:).

#include <optional>
#include <string>
#include <string_view>

#include "quorvia/export.h"

namespace quorvia::platform {

/// A parsed absolute or relative URL reference (RFC 3986).
struct QUORVIA_EXPORT URL {
  std::string absoluteString;
  std::string scheme;  ///< lowercase; empty for a relative reference
  std::string host;
  std::optional<int> port;
  std::string path;    ///< as written, percent escapes kept
  std::string query;   ///< without "?"; empty when none
};

/// The URL, or nullopt (nil) when the text holds characters a URL may not
/// carry unescaped (spaces, quotes, controls, non-ASCII...), a malformed
/// percent escape, or a malformed scheme or port.
QUORVIA_EXPORT std::optional<URL> URLWithString(std::string_view text);

}  // namespace quorvia::platform
