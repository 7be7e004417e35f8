#include "AdminGate.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <array>
#include <cctype>

#include "JsonResponse.h"

namespace quorvia::devserver {

namespace {

std::string lowercase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

bool isJson(const std::string& contentType) {
  std::string type = lowercase(contentType.substr(0, contentType.find(';')));
  type.erase(std::remove(type.begin(), type.end(), ' '), type.end());
  return type == "application/json";
}

// The value of cookie `name` in a Cookie header, or empty.
std::string cookieValue(const std::string& header, const std::string& name) {
  size_t at = 0;
  while (at < header.size()) {
    size_t end = header.find(';', at);
    if (end == std::string::npos) end = header.size();
    std::string pair = header.substr(at, end - at);
    size_t first = pair.find_first_not_of(' ');
    if (first != std::string::npos && pair.compare(first, name.size() + 1, name + "=") == 0) {
      return pair.substr(first + name.size() + 1);
    }
    at = end + 1;
  }
  return {};
}

}  // namespace

AdminGate::AdminGate(std::string adminToken) : adminToken_(std::move(adminToken)) {}

void AdminGate::setListening(const std::string& host, int port) {
  boundHost_ = lowercase(host);
  port_.store(port);
}

bool AdminGate::guards(const std::string& path) {
  return path == "/" || path.starts_with("/admin") || path.starts_with("/dashboard/");
}

bool AdminGate::hostAllowed(const std::string& host) const {
  int port = port_.load();
  if (port <= 0) return false;
  std::string suffix = ":" + std::to_string(port);
  std::string name = lowercase(host);
  if (!name.ends_with(suffix)) return false;
  name.resize(name.size() - suffix.size());
  const std::array<std::string, 4> allowed = {"127.0.0.1", "localhost", "[::1]", boundHost_};
  return std::find(allowed.begin(), allowed.end(), name) != allowed.end();
}

std::string AdminGate::presentedToken(const httplib::Request& request) const {
  constexpr std::string_view kBearer = "Bearer ";
  std::string authorization = request.get_header_value("Authorization");
  if (std::string_view(authorization).starts_with(kBearer)) {
    return authorization.substr(kBearer.size());
  }
  if (request.has_header(kHeader)) return request.get_header_value(kHeader);
  if (request.has_param("token")) return request.get_param_value("token");
  return cookieValue(request.get_header_value("Cookie"), kCookie);
}

bool AdminGate::admit(const httplib::Request& request, httplib::Response& response) const {
  std::string host = request.get_header_value("Host");
  if (!hostAllowed(host)) {
    sendError(response, 403, "the Host header does not name this server");
    return false;
  }
  if (!adminToken_.empty()) {
    std::string token = presentedToken(request);
    if (token.size() != adminToken_.size() ||
        CRYPTO_memcmp(token.data(), adminToken_.data(), token.size()) != 0) {
      sendError(response, 401,
                "the admin token is missing or wrong; use the URL the server "
                "printed at start");
      return false;
    }
  }
  if (request.method == "GET" || request.method == "HEAD") return true;
  if (!isJson(request.get_header_value("Content-Type"))) {
    sendError(response, 415, "admin writes must be sent as application/json");
    return false;
  }
  if (request.has_header("Origin") &&
      lowercase(request.get_header_value("Origin")) != "http://" + lowercase(host)) {
    sendError(response, 403, "cross-origin admin writes are refused");
    return false;
  }
  return true;
}

}  // namespace quorvia::devserver
