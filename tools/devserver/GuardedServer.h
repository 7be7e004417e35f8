#pragma once

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <cstddef>

namespace quorvia::devserver {

// How long and how much one connection may take before it is cut.
struct ConnectionLimits {
  // Connections served at once; each gets a worker of its own. Connections beyond it are
  // answered 503 and closed at once, without reading them.
  size_t maxConnections = 256;
  // The whole request (line, headers and body) must arrive within this time, however slowly it
  // trickles; a client that sends a byte a second gets no longer than one that sends nothing.
  std::chrono::milliseconds requestDeadline{5000};
  // An idle kept-alive connection is closed after this.
  std::chrono::milliseconds keepAlive{5000};
  // Bytes one request may send, headers and body together, however they are framed; past it the
  // connection is closed. Handlers answer 413 well before this for bodies they refuse.
  size_t maxRequestBytes = 2 * 1024 * 1024;
};

// httplib's server with connections served under ConnectionLimits: a per-request deadline, a
// byte budget, a connection cap and a worker per connection. beginShutdown() wakes every
// connection waiting on its peer, so stop() is not held up by idle or slow clients.
//
// Requests are framed as RFC 9112 §6.3 says (see RequestFraming.h): one whose framing is faulty
// is answered 400 (501 for a transfer coding other than chunked) before any handler sees it. A
// connection is kept for another request only when the answered one was read exactly to the end
// of its body; otherwise the answer says "Connection: close" and the connection is closed, so
// the unread rest of a body is never taken for a request.
class GuardedServer final : public httplib::Server {
 public:
  explicit GuardedServer(ConnectionLimits limits);
  ~GuardedServer() override;
  GuardedServer(const GuardedServer&) = delete;
  GuardedServer& operator=(const GuardedServer&) = delete;

  // httplib's pre-routing handler, run only for requests whose framing is sound; set it before
  // the server listens. The server uses httplib's own pre- and post-routing hooks for the
  // framing, hence their removal below.
  void setAdmission(HandlerWithResponse admission);
  httplib::Server& set_pre_routing_handler(HandlerWithResponse) = delete;
  httplib::Server& set_post_routing_handler(Handler) = delete;

  // The socket of the connection that the calling thread serves, or -1 off the server's
  // workers. A long answer (an event stream) watches it to notice at once that its client left.
  static int servingSocket();

  // Binds like bind_to_port / bind_to_any_port (port 0), with a listen backlog deep enough for
  // a burst of connections; returns the port or -1.
  int bindListening(const std::string& host, int port);

  // Makes every wait on a peer return at once from now on; call before stop(). Thread-safe.
  void beginShutdown();
  // True once beginShutdown() was called.
  bool shuttingDown() const { return shuttingDown_.load(); }
  // A descriptor that becomes readable at beginShutdown(), for other waits to watch.
  int shutdownFd() const { return wakeRead_; }

 private:
  bool process_and_close_socket(socket_t sock) override;

  const ConnectionLimits limits_;
  HandlerWithResponse admission_;
  std::atomic<bool> shuttingDown_{false};
  int wakeRead_ = -1;
  int wakeWrite_ = -1;
};

}  // namespace quorvia::devserver
