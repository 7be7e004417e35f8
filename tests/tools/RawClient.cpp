#include "RawClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace quorvia::devserver::testing {

namespace {
constexpr int kWaitMs = 20'000;
}  // namespace

RawConnection::RawConnection(int port) {
  fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    close(fd_);
    fd_ = -1;
  }
}

RawConnection::~RawConnection() {
  if (fd_ >= 0) close(fd_);
}

bool RawConnection::send(const std::string& bytes) {
  return fd_ >= 0 && ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
                         static_cast<ssize_t>(bytes.size());
}

EndlessBodyOutcome sendEndlessChunkedBody(int port, const std::string& head, size_t limit) {
  EndlessBodyOutcome outcome;
  RawConnection connection(port);
  if (!connection.send(head)) return outcome;
  char sizeLine[32];
  std::snprintf(sizeLine, sizeof sizeLine, "%zx\r\n", size_t{1} << 20);
  const std::string chunk = sizeLine + std::string(size_t{1} << 20, 'x') + "\r\n";
  size_t offset = 0;  // into the chunk being sent
  bool ended = false;
  for (;;) {
    pollfd fds{connection.fd(), static_cast<short>(POLLIN | (ended ? 0 : POLLOUT)), 0};
    if (poll(&fds, 1, kWaitMs) <= 0) return outcome;
    if (fds.revents & (POLLIN | POLLHUP | POLLERR)) break;
    if (outcome.bytesSent >= limit) {
      connection.send("0\r\n\r\n");
      ended = true;
      continue;
    }
    ssize_t n = ::send(connection.fd(), chunk.data() + offset, chunk.size() - offset,
                       MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && errno == EAGAIN) continue;
    if (n <= 0) break;
    outcome.bytesSent += static_cast<size_t>(n);
    offset = (offset + static_cast<size_t>(n)) % chunk.size();
  }
  char buffer[4096];
  for (;;) {
    pollfd fds{connection.fd(), POLLIN, 0};
    if (poll(&fds, 1, kWaitMs) <= 0) break;
    ssize_t n = recv(connection.fd(), buffer, sizeof buffer, 0);
    if (n <= 0) break;
    outcome.answer.append(buffer, static_cast<size_t>(n));
    if (outcome.answer.find("\r\n\r\n") != std::string::npos) break;
  }
  return outcome;
}

}  // namespace quorvia::devserver::testing
