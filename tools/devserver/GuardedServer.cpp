#include "GuardedServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string>

#include "ConnectionPool.h"
#include "JsonResponse.h"
#include "RequestFraming.h"

namespace quorvia::devserver {

namespace {

using Clock = std::chrono::steady_clock;

enum class Wait { kReady, kTimedOut, kShutdown };

// Waits until `fd` is ready for `events` (or hung up), the deadline passes, or shutdown.
Wait waitFor(int fd, short events, int wakeFd, Clock::time_point deadline) {
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) return Wait::kTimedOut;
    pollfd fds[2] = {{fd, events, 0}, {wakeFd, POLLIN, 0}};
    int n = ::poll(fds, 2, static_cast<int>(std::min<int64_t>(left.count(), 60'000)));
    if (n < 0 && errno != EINTR) return Wait::kShutdown;
    if (n <= 0) continue;
    if (fds[1].revents != 0) return Wait::kShutdown;
    if (fds[0].revents != 0) return Wait::kReady;
  }
}

void addressOf(int fd, bool peer, std::string& ip, int& port) {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  int rc = peer ? getpeername(fd, reinterpret_cast<sockaddr*>(&address), &length)
                : getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  if (rc != 0) return;
  char text[INET6_ADDRSTRLEN] = {};
  if (address.ss_family == AF_INET) {
    auto* in = reinterpret_cast<sockaddr_in*>(&address);
    inet_ntop(AF_INET, &in->sin_addr, text, sizeof text);
    port = ntohs(in->sin_port);
  } else if (address.ss_family == AF_INET6) {
    auto* in6 = reinterpret_cast<sockaddr_in6*>(&address);
    inet_ntop(AF_INET6, &in6->sin6_addr, text, sizeof text);
    port = ntohs(in6->sin6_port);
  }
  ip = text;
}

// A connection's socket as httplib reads and writes it: reads stop at the request's deadline
// and byte budget, and every wait ends at shutdown.
class LimitedStream final : public httplib::Stream {
 public:
  LimitedStream(int fd, int wakeFd, const ConnectionLimits& limits)
      : fd_(fd), wakeFd_(wakeFd), limits_(limits) {}

  void startRequest() {
    deadline_ = Clock::now() + limits_.requestDeadline;
    budget_ = limits_.maxRequestBytes;
  }

  bool is_readable() const override {
    return waitFor(fd_, POLLIN, wakeFd_, deadline_) == Wait::kReady;
  }
  bool is_writable() const override {
    pollfd fds{fd_, POLLOUT, 0};
    return ::poll(&fds, 1, 0) >= 0 && (fds.revents & (POLLERR | POLLHUP | POLLNVAL)) == 0;
  }
  ssize_t read(char* ptr, size_t size) override {
    for (;;) {
      if (budget_ == 0 || !is_readable()) return -1;
      ssize_t n = ::recv(fd_, ptr, std::min(size, budget_), MSG_DONTWAIT);
      if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
      if (n > 0) {
        budget_ -= static_cast<size_t>(n);
        consumed_ += static_cast<uint64_t>(n);
      }
      return n;
    }
  }
  ssize_t write(const char* ptr, size_t size) override {
    auto deadline = Clock::now() + limits_.requestDeadline;
    size_t sent = 0;
    while (sent < size) {
      if (waitFor(fd_, POLLOUT, wakeFd_, deadline) != Wait::kReady) return -1;
      ssize_t n = ::send(fd_, ptr + sent, size - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
      if (n <= 0) return -1;
      sent += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(sent);
  }
  void get_remote_ip_and_port(std::string& ip, int& port) const override {
    addressOf(fd_, true, ip, port);
  }
  void get_local_ip_and_port(std::string& ip, int& port) const override {
    addressOf(fd_, false, ip, port);
  }
  socket_t socket() const override { return fd_; }

  // Bytes read from the connection so far. httplib reads the request line and headers a byte at
  // a time and a body no further than its framing says, so this is where it stopped.
  uint64_t consumed() const { return consumed_; }

 private:
  int fd_;
  int wakeFd_;
  const ConnectionLimits& limits_;
  Clock::time_point deadline_ = Clock::now();
  size_t budget_ = 0;
  uint64_t consumed_ = 0;
};

// The request that the calling worker is answering, as far as the server knows it, for the
// routing hooks, which httplib calls without the connection.
struct Exchange {
  int socket = -1;
  const LimitedStream* stream = nullptr;
  std::optional<BodyFraming> framing;  // once the headers are read
  uint64_t bodyStart = 0;              // where the headers ended
  bool answered = false;
  bool keepAlive = false;
};

thread_local Exchange* exchange = nullptr;

constexpr std::string_view kBusy =
    "HTTP/1.1 503 Service Unavailable\r\nContent-Type: application/json\r\nContent-Length: 46\r\n"
    "Connection: close\r\n\r\n{\"error\": \"too many connections, try again\"}\r\n";

// The thread that refuses connections over the cap never waits on a client: a flood of idle
// connections would otherwise queue every later one behind it. What the client already sent is
// dropped first so that the close is a FIN rather than a reset where it can be.
void refuse(int fd) {
  [[maybe_unused]] ssize_t n = ::send(fd, kBusy.data(), kBusy.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  char buffer[16 * 1024];
  for (int reads = 0; reads < 4 && ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT) > 0; ++reads) {
  }
  ::close(fd);
}

// Closing with unread request bytes makes the kernel send a reset, which can destroy an answer
// (a 413) the client has not read yet; so the sending side is closed first and what the client
// still sends is read and dropped for a short, bounded while.
void lingeringClose(int fd, int wakeFd, std::chrono::milliseconds linger) {
  ::shutdown(fd, SHUT_WR);
  auto deadline = Clock::now() + linger;
  char buffer[16 * 1024];
  for (size_t drained = 0; drained < (size_t{8} << 20);) {
    if (waitFor(fd, POLLIN, wakeFd, deadline) != Wait::kReady) break;
    ssize_t n = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (n <= 0) break;
    drained += static_cast<size_t>(n);
  }
  ::close(fd);
}

}  // namespace

GuardedServer::GuardedServer(ConnectionLimits limits) : limits_(limits) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0) {
    wakeRead_ = fds[0];
    wakeWrite_ = fds[1];
  }
  new_task_queue = [capacity = limits_.maxConnections] { return new ConnectionPool(capacity); };
  // httplib's default also sets SO_REUSEPORT, which lets a second server bind the same port and
  // take half of the connections; SO_REUSEADDR alone still allows a quick restart.
  set_socket_options([](socket_t sock) {
    int yes = 1;
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
  httplib::Server::set_pre_routing_handler(
      [this](const httplib::Request& request, httplib::Response& response) {
        if (exchange != nullptr && exchange->framing &&
            exchange->framing->kind == BodyFraming::Kind::kFaulty) {
          sendError(response, exchange->framing->status, exchange->framing->problem);
          return HandlerResponse::Handled;
        }
        return admission_ ? admission_(request, response) : HandlerResponse::Unhandled;
      });
  // Runs as the answer's headers are written, after the handler read what it wanted.
  httplib::Server::set_post_routing_handler([](const httplib::Request&,
                                               httplib::Response& response) {
    if (exchange == nullptr) return;
    Exchange& current = *exchange;
    current.answered = true;
    current.keepAlive = current.framing && current.framing->kind == BodyFraming::Kind::kLength &&
                        current.stream->consumed() - current.bodyStart == current.framing->length &&
                        response.get_header_value("Connection") != "close";
    if (!current.keepAlive) {
      response.headers.erase("Keep-Alive");
      response.headers.erase("Connection");
      response.set_header("Connection", "close");
    }
  });
}

GuardedServer::~GuardedServer() {
  if (wakeRead_ >= 0) close(wakeRead_);
  if (wakeWrite_ >= 0) close(wakeWrite_);
}

int GuardedServer::bindListening(const std::string& host, int port) {
  int bound = port == 0 ? bind_to_any_port(host) : (bind_to_port(host, port) ? port : -1);
  // httplib listens with a backlog of 5; a burst beyond that has its SYNs dropped and waits
  // out TCP's one-second retransmission, however idle the workers are.
  if (bound > 0) ::listen(svr_sock_, 1024);
  return bound;
}

void GuardedServer::setAdmission(HandlerWithResponse admission) {
  admission_ = std::move(admission);
}

int GuardedServer::servingSocket() { return exchange != nullptr ? exchange->socket : -1; }

void GuardedServer::beginShutdown() {
  if (shuttingDown_.exchange(true) || wakeWrite_ < 0) return;
  char byte = 1;
  [[maybe_unused]] ssize_t n = ::write(wakeWrite_, &byte, 1);
}

bool GuardedServer::process_and_close_socket(socket_t sock) {
  if (ConnectionPool::isShedding()) {
    refuse(sock);
    return false;
  }
  // httplib sets this in the connection loop replaced here; without it every answer waits on
  // Nagle and the client's delayed ACK.
  int yes = 1;
  setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
  LimitedStream stream(sock, wakeRead_, limits_);
  Exchange current;
  exchange = &current;
  bool ok = false;
  for (size_t served = 0; !shuttingDown_.load(); ++served) {
    if (served > 0 &&
        waitFor(sock, POLLIN, wakeRead_, Clock::now() + limits_.keepAlive) != Wait::kReady) {
      break;
    }
    stream.startRequest();
    current = Exchange{sock, &stream};
    bool closed = false;
    ok = process_request(stream, shuttingDown_.load(), closed, [&](httplib::Request& request) {
      current.framing = bodyFraming(request);
      current.bodyStart = stream.consumed();
      // A request with neither header has no body (RFC 9112 §6.3); httplib would read one until
      // the client closes.
      if (current.framing->kind == BodyFraming::Kind::kLength &&
          !request.has_header("Content-Length")) {
        request.set_header("Content-Length", "0");
      }
    });
    if (!ok || closed || !current.keepAlive) break;
  }
  exchange = nullptr;
  ConnectionPool::releaseSlot();
  // Only an answer given before the request was read to its end leaves client bytes to drop.
  if (current.answered && !current.keepAlive) {
    lingeringClose(sock, wakeRead_, std::chrono::milliseconds(500));
  } else {
    ::close(sock);
  }
  return ok;
}

}  // namespace quorvia::devserver
