#pragma once

#include <httplib.h>

#include <atomic>
#include <string>

namespace quorvia::devserver {

// Keeps other web pages and other hosts' names away from the dashboard and the admin API.
// A browser lets any page send a simple cross-origin POST (text/plain, no preflight) to
// loopback, and a DNS-rebound name reaches loopback under a foreign Host, so:
//   - every dashboard and admin request needs a Host naming the listening address (the bound
//     host, 127.0.0.1, localhost or [::1], with the bound port), else 403;
//   - it needs the admin token (see DevServerOptions::adminToken), else 401 (a Host or token
//     check that fails says nothing about the other);
//   - a write (any method but GET and HEAD) needs "Content-Type: application/json" (415
//     otherwise) and no Origin or the page's own origin (403 otherwise).
// The SDK's endpoints pass untouched. Thread-safe once setListening() was called.
class AdminGate final {
 public:
  // An empty token turns the token check off (tests of the other checks only).
  explicit AdminGate(std::string adminToken);

  // The address the server listens on; until it is set every gated request is refused.
  void setListening(const std::string& host, int port);

  // True for the paths this gate guards.
  static bool guards(const std::string& path);

  // Returns true when `request` may go on; otherwise answers `response` and returns false.
  bool admit(const httplib::Request& request, httplib::Response& response) const;

  // The token is taken from "Authorization: Bearer <token>", this header, the query parameter
  // "token", or this cookie, in that order.
  static constexpr const char* kHeader = "X-Quorvia-Admin-Token";
  // Name of the cookie the dashboard keeps the token in.
  static constexpr const char* kCookie = "quorvia_admin";

 private:
  bool hostAllowed(const std::string& host) const;
  std::string presentedToken(const httplib::Request& request) const;

  const std::string adminToken_;
  std::string boundHost_;
  std::atomic<int> port_{0};
};

}  // namespace quorvia::devserver
