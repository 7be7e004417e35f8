#include "AccessToken.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <array>
#include <vector>

namespace quorvia::devserver {

namespace {

constexpr std::string_view kHeader = R"({"alg":"HS256","typ":"JWT"})";

std::string dumpJson(const nlohmann::json& value) {
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

std::string base64UrlEncode(std::string_view bytes) {
  std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                reinterpret_cast<const unsigned char*>(bytes.data()),
                                static_cast<int>(bytes.size()));
  out.resize(written > 0 ? static_cast<size_t>(written) : 0);
  while (!out.empty() && out.back() == '=') out.pop_back();
  for (char& c : out) {
    if (c == '+') c = '-';
    if (c == '/') c = '_';
  }
  return out;
}

std::optional<std::string> base64UrlDecode(std::string_view text) {
  if (text.size() % 4 == 1) return std::nullopt;
  std::string standard(text);
  for (char& c : standard) {
    if (c == '-') {
      c = '+';
    } else if (c == '_') {
      c = '/';
    } else if (c == '+' || c == '/' || c == '=') {
      return std::nullopt;  // only the url-safe alphabet, unpadded, is accepted
    }
  }
  size_t padding = (4 - standard.size() % 4) % 4;
  standard.append(padding, '=');
  std::string out(standard.size() / 4 * 3, '\0');
  int written = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                reinterpret_cast<const unsigned char*>(standard.data()),
                                static_cast<int>(standard.size()));
  if (written < 0 || static_cast<size_t>(written) < padding) return std::nullopt;
  out.resize(static_cast<size_t>(written) - padding);
  return out;
}

std::string randomHex(size_t count) {
  std::vector<unsigned char> bytes(count);
  if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) return {};
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (unsigned char b : bytes) {
    hex.push_back(kDigits[b >> 4]);
    hex.push_back(kDigits[b & 0xf]);
  }
  return hex;
}

AccessToken::AccessToken(std::string secret) : secret_(std::move(secret)) {}

std::string AccessToken::sign(std::string_view signingInput) const {
  std::array<unsigned char, EVP_MAX_MD_SIZE> mac{};
  unsigned int length = 0;
  if (HMAC(EVP_sha256(), secret_.data(), static_cast<int>(secret_.size()),
           reinterpret_cast<const unsigned char*>(signingInput.data()), signingInput.size(),
           mac.data(), &length) == nullptr) {
    return {};
  }
  return base64UrlEncode(std::string_view(reinterpret_cast<const char*>(mac.data()), length));
}

std::string AccessToken::issue(const nlohmann::json& claims) const {
  std::string signingInput = base64UrlEncode(kHeader) + "." + base64UrlEncode(dumpJson(claims));
  return signingInput + "." + sign(signingInput);
}

std::optional<nlohmann::json> AccessToken::verify(std::string_view token) const {
  size_t firstDot = token.find('.');
  if (firstDot == std::string_view::npos) return std::nullopt;
  size_t secondDot = token.find('.', firstDot + 1);
  if (secondDot == std::string_view::npos || token.find('.', secondDot + 1) != token.npos) {
    return std::nullopt;
  }
  std::string_view signingInput = token.substr(0, secondDot);
  std::string expected = sign(signingInput);
  std::string_view given = token.substr(secondDot + 1);
  if (expected.empty() || expected.size() != given.size() ||
      CRYPTO_memcmp(expected.data(), given.data(), given.size()) != 0) {
    return std::nullopt;
  }
  std::optional<std::string> header = base64UrlDecode(token.substr(0, firstDot));
  std::optional<std::string> payload =
      base64UrlDecode(token.substr(firstDot + 1, secondDot - firstDot - 1));
  if (!header || !payload) return std::nullopt;
  nlohmann::json headerJson = nlohmann::json::parse(*header, nullptr, false);
  // A valid signature over another algorithm's header is still refused: only HS256 is issued.
  if (!headerJson.is_object() || headerJson.value("alg", nlohmann::json()) != "HS256") {
    return std::nullopt;
  }
  nlohmann::json claims = nlohmann::json::parse(*payload, nullptr, false);
  if (!claims.is_object()) return std::nullopt;
  return claims;
}

}  // namespace quorvia::devserver
