#include "RequestFraming.h"

#include <algorithm>
#include <cctype>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace quorvia::devserver {

namespace {

constexpr std::string_view kWhitespace = " \t";

BodyFraming faulty(int status, std::string problem) {
  return {BodyFraming::Kind::kFaulty, 0, status, std::move(problem)};
}

// The elements of every `name` header, in order: repeated headers and comma-separated lists
// are one list (RFC 9110 §5.3), each element without its surrounding whitespace.
std::vector<std::string_view> listElements(const httplib::Headers& headers, const char* name) {
  std::vector<std::string_view> elements;
  auto [begin, end] = headers.equal_range(name);
  for (auto header = begin; header != end; ++header) {
    std::string_view rest = header->second;
    for (;;) {
      size_t comma = rest.find(',');
      std::string_view element = rest.substr(0, comma);
      size_t first = element.find_first_not_of(kWhitespace);
      element = first == std::string_view::npos
                    ? std::string_view()
                    : element.substr(first, element.find_last_not_of(kWhitespace) + 1 - first);
      elements.push_back(element);
      if (comma == std::string_view::npos) break;
      rest.remove_prefix(comma + 1);
    }
  }
  return elements;
}

// 1*DIGIT, saturating at the largest value; nullopt for anything else ("1e6", "-1", "0x10", "").
std::optional<uint64_t> contentLength(std::string_view text) {
  if (text.empty()) return std::nullopt;
  uint64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    auto digit = static_cast<uint64_t>(c - '0');
    constexpr uint64_t kMax = std::numeric_limits<uint64_t>::max();
    value = value > (kMax - digit) / 10 ? kMax : value * 10 + digit;
  }
  return value;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return std::ranges::equal(a, b, [](char x, char y) {
    return std::tolower(static_cast<unsigned char>(x)) ==
           std::tolower(static_cast<unsigned char>(y));
  });
}

}  // namespace

BodyFraming bodyFraming(const httplib::Request& request) {
  // "Content-Length : 5" is no Content-Length to httplib, but may be one to a proxy in front.
  for (const auto& [name, value] : request.headers) {
    if (name.empty() || name.find_first_of(kWhitespace) != std::string::npos) {
      return faulty(400, "a header name is empty or holds whitespace");
    }
  }
  const bool hasLength = request.has_header("Content-Length");
  if (request.has_header("Transfer-Encoding")) {
    if (hasLength) return faulty(400, "both Content-Length and Transfer-Encoding are given");
    if (request.version == "HTTP/1.0") {
      return faulty(400, "Transfer-Encoding is not defined for HTTP/1.0");
    }
    std::vector<std::string_view> codings = listElements(request.headers, "Transfer-Encoding");
    if (!equalsIgnoringCase(codings.back(), "chunked")) {
      return faulty(400, "the last transfer coding must be chunked");
    }
    if (codings.size() > 1) return faulty(501, "only the chunked transfer coding is supported");
    return {BodyFraming::Kind::kChunked};
  }
  if (!hasLength) return {};
  std::optional<uint64_t> length;
  for (std::string_view element : listElements(request.headers, "Content-Length")) {
    std::optional<uint64_t> value = contentLength(element);
    if (!value) return faulty(400, "Content-Length must be a number of bytes in digits");
    if (length && *length != *value) return faulty(400, "Content-Length values disagree");
    length = value;
  }
  return {BodyFraming::Kind::kLength, *length};
}

}  // namespace quorvia::devserver
