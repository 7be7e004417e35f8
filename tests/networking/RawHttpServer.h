#pragma once
// A loopback HTTP/1.1 server on raw sockets for tests that need the exact
// request bytes or a misbehaving server (stall, reset, truncated body).

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

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

class RawHttpServer {
 public:
  enum class Mode {
    kAnswer,          // answers every request with the configured answer, keep-alive
    kStall,           // reads requests and never answers
    kResetMidBody,    // sends part of the body, then resets the connection
    kTruncatedBody,   // sends part of the body, then closes cleanly
  };

  explicit RawHttpServer(Mode mode = Mode::kAnswer);
  ~RawHttpServer();
  RawHttpServer(const RawHttpServer&) = delete;
  RawHttpServer& operator=(const RawHttpServer&) = delete;

  int port() const { return port_; }
  std::string url(const std::string& path) const;
  void setAnswer(int status, std::string contentType, std::string body);

  /// What to answer one request with (kAnswer mode).
  struct Answer {
    int status = 200;
    std::string contentType = "application/json";
    std::string body = "{}";
  };
  /// Decides the answer per request, in place of setAnswer's fixed one. Runs on
  /// the server's connection threads.
  void setResponder(std::function<Answer(const RecordedRequest&)> responder);
  std::vector<RecordedRequest> requests() const;
  std::size_t requestCount() const;

 private:
  void acceptLoop();
  void serve(int fd);
  void closeConnection(int fd);

  const Mode mode_;
  int listenFd_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  mutable std::mutex mu_;
  int status_ = 200;
  std::string contentType_ = "application/json";
  std::string body_ = "{\"ok\":1}";
  std::function<Answer(const RecordedRequest&)> responder_;
  std::vector<RecordedRequest> requests_;
  std::vector<int> connections_;
  std::vector<std::thread> workers_;
  std::thread acceptor_;
};

}  // namespace quorvia::testing
