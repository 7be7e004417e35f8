#pragma once
// The one loopback HTTP/1.1 server of the tests: it listens on 127.0.0.1 on an
// ephemeral port, records every request byte for byte, and answers, stalls,
// drops, truncates or redirects as told; over TLS with a throwaway
// self-signed certificate when asked. It stops in its destructor.

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/URLSession.h"

namespace quorvia::testing {

struct RecordedRequest {
  std::string method;
  std::string target;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;

  /// The header's value (name compared without case), or "" when absent.
  std::string header(const std::string& name) const;
  bool hasHeader(const std::string& name) const;
};

struct Reply {
  int status = 200;
  std::string contentType = "application/json";
  std::string body = "{\"ok\":1}";
  /// When not zero, the body is this many spaces instead, written 64 KiB at
  /// a time as the client reads them: announced with Content-Length, or
  /// chunked when `announceLength` is false.
  std::size_t streamedBytes = 0;
  bool announceLength = true;
};

class LoopbackServer {
 public:
  enum class Behaviour {
    kAnswer,         // answers every request, keeping the connection alive
    kRefuse,         // holds the port without listening: every connection is refused
    kStall,          // reads requests and never answers
    kResetMidBody,   // sends half the body, then resets the connection
    kTruncateBody,   // promises a longer body than it sends, then closes cleanly
    kRedirectToSelf  // answers every request with a redirect to the same target
  };

  explicit LoopbackServer(Behaviour behaviour = Behaviour::kAnswer, bool tls = false);
  ~LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  /// "http://127.0.0.1:PORT" (or https), without a trailing slash.
  std::string baseURL() const;
  std::string url(const std::string& path) const { return baseURL() + path; }

  void setReply(Reply reply);
  /// Decides the reply per request; runs on the server's connection threads.
  void setResponder(std::function<Reply(const RecordedRequest&)> responder);
  std::vector<RecordedRequest> requests() const;
  std::size_t requestCount() const;

 private:
  struct Tls;
  void acceptLoop();
  void serve(int fd);

  const Behaviour behaviour_;
  std::unique_ptr<Tls> tls_;
  int listenFd_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  mutable std::mutex mu_;
  Reply reply_;
  std::function<Reply(const RecordedRequest&)> responder_;
  std::vector<RecordedRequest> requests_;
  std::vector<int> connections_;
  std::vector<std::thread> workers_;
  std::thread acceptor_;
};

/// The real transport with each request's time-out cut to `seconds`, so that
/// a stalled server costs a fraction of a second instead of the 60 s default.
class ShortTimeoutTransport final : public platform::URLTransport {
 public:
  explicit ShortTimeoutTransport(double seconds)
      : real_(platform::makeCurlTransport()), seconds_(seconds) {}
  void start(platform::URLRequest request, platform::ServerTrustPolicy trust, Done done) override {
    request.timeoutInterval = seconds_.load();
    real_->start(std::move(request), trust, std::move(done));
  }
  void setSeconds(double seconds) { seconds_ = seconds; }

 private:
  std::shared_ptr<platform::URLTransport> real_;
  std::atomic<double> seconds_;
};

}  // namespace quorvia::testing
