#include "platform/URL.h"

#include <algorithm>
#include <cctype>

namespace quorvia::platform {
namespace {

bool isUnreservedOrReserved(unsigned char c) {
  if (std::isalnum(c)) return true;
  switch (c) {
    case '-': case '.': case '_': case '~':                          // unreserved
    case ':': case '/': case '?': case '#': case '[': case ']': case '@':  // gen-delims
    case '!': case '$': case '&': case '\'': case '(': case ')':
    case '*': case '+': case ',': case ';': case '=':                // sub-delims
      return true;
    default:
      return false;
  }
}

bool validCharacters(std::string_view text) {
  bool inFragment = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c == '%') {
      if (i + 2 >= text.size() || !std::isxdigit(static_cast<unsigned char>(text[i + 1])) ||
          !std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
        return false;
      }
      i += 2;
      continue;
    }
    if (c == '#') {
      if (inFragment) return false;
      inFragment = true;
      continue;
    }
    if (!isUnreservedOrReserved(c)) return false;
  }
  return true;
}

}  // namespace

std::optional<URL> URLWithString(std::string_view text) {
  if (text.empty() || !validCharacters(text)) return std::nullopt;
  URL url;
  url.absoluteString = std::string(text);
  std::string_view rest = text;

  // A scheme is the part before the first ':' when no '/', '?' or '#' comes first.
  const auto colon = rest.find(':');
  const auto delim = rest.find_first_of("/?#");
  if (colon != std::string_view::npos && (delim == std::string_view::npos || colon < delim)) {
    const std::string_view scheme = rest.substr(0, colon);
    if (scheme.empty() || !std::isalpha(static_cast<unsigned char>(scheme[0])) ||
        !std::all_of(scheme.begin(), scheme.end(), [](unsigned char c) {
          return std::isalnum(c) || c == '+' || c == '-' || c == '.';
        })) {
      return std::nullopt;
    }
    url.scheme.resize(scheme.size());
    std::transform(scheme.begin(), scheme.end(), url.scheme.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    rest.remove_prefix(colon + 1);
  }

  if (rest.substr(0, 2) == "//") {
    rest.remove_prefix(2);
    const auto end = rest.find_first_of("/?#");
    std::string_view authority = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end);
    if (const auto at = authority.rfind('@'); at != std::string_view::npos) {
      authority.remove_prefix(at + 1);
    }
    std::string_view host = authority;
    if (!authority.empty() && authority.front() == '[') {
      const auto close = authority.find(']');
      if (close == std::string_view::npos) return std::nullopt;
      host = authority.substr(0, close + 1);
      authority.remove_prefix(close + 1);
    } else {
      const auto portColon = authority.rfind(':');
      host = authority.substr(0, portColon);
      authority.remove_prefix(portColon == std::string_view::npos ? authority.size() : portColon);
    }
    if (!authority.empty()) {  // ":port"
      if (authority.front() != ':') return std::nullopt;
      const std::string_view digits = authority.substr(1);
      if (digits.size() > 5 || !std::all_of(digits.begin(), digits.end(), [](unsigned char c) {
            return std::isdigit(c);
          })) {
        return std::nullopt;
      }
      if (!digits.empty()) url.port = std::stoi(std::string(digits));
    }
    url.host = std::string(host);
  }

  const auto fragment = rest.find('#');
  if (fragment != std::string_view::npos) rest = rest.substr(0, fragment);
  const auto question = rest.find('?');
  url.path = std::string(rest.substr(0, question));
  if (question != std::string_view::npos) url.query = std::string(rest.substr(question + 1));
  return url;
}

}  // namespace quorvia::platform
