#include "networking/RawHttpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

namespace quorvia::testing {
namespace {

bool sendAll(int fd, const std::string& bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return false;
    sent += static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

std::string RecordedRequest::header(const std::string& name) const {
  for (const auto& [key, value] : headers) {
    if (::strcasecmp(key.c_str(), name.c_str()) == 0) return value;
  }
  return {};
}

bool RecordedRequest::hasHeader(const std::string& name) const {
  for (const auto& header : headers) {
    if (::strcasecmp(header.first.c_str(), name.c_str()) == 0) return true;
  }
  return false;
}

RawHttpServer::RawHttpServer(Mode mode) : mode_(mode) {
  listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;
  if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listenFd_, 64) != 0) {
    throw std::runtime_error("cannot listen on loopback");
  }
  socklen_t length = sizeof address;
  ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);
  acceptor_ = std::thread([this] { acceptLoop(); });
}

RawHttpServer::~RawHttpServer() {
  stopping_ = true;
  ::shutdown(listenFd_, SHUT_RDWR);
  acceptor_.join();
  {
    std::lock_guard lock(mu_);
    for (const int fd : connections_) ::shutdown(fd, SHUT_RDWR);
  }
  for (auto& worker : workers_) worker.join();
  ::close(listenFd_);
}

std::string RawHttpServer::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

void RawHttpServer::setAnswer(int status, std::string contentType, std::string body) {
  std::lock_guard lock(mu_);
  status_ = status;
  contentType_ = std::move(contentType);
  body_ = std::move(body);
}

std::vector<RecordedRequest> RawHttpServer::requests() const {
  std::lock_guard lock(mu_);
  return requests_;
}

std::size_t RawHttpServer::requestCount() const {
  std::lock_guard lock(mu_);
  return requests_.size();
}

void RawHttpServer::acceptLoop() {
  while (!stopping_) {
    const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return;
    const int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    std::lock_guard lock(mu_);
    if (stopping_) {
      ::close(fd);
      return;
    }
    connections_.push_back(fd);
    workers_.emplace_back([this, fd] { serve(fd); });
  }
}

void RawHttpServer::setResponder(std::function<Answer(const RecordedRequest&)> responder) {
  std::lock_guard lock(mu_);
  responder_ = std::move(responder);
}

void RawHttpServer::serve(int fd) {
  std::string buffer;
  char chunk[16384];
  for (;;) {
    // Read one request: head, then a body of Content-Length bytes.
    std::size_t headEnd;
    while ((headEnd = buffer.find("\r\n\r\n")) == std::string::npos) {
      const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
      if (n <= 0) {
        closeConnection(fd);
        return;
      }
      buffer.append(chunk, static_cast<std::size_t>(n));
    }
    RecordedRequest request;
    const std::string head = buffer.substr(0, headEnd);
    std::size_t lineEnd = head.find("\r\n");
    const std::string requestLine = head.substr(0, lineEnd);
    const auto firstSpace = requestLine.find(' ');
    const auto secondSpace = requestLine.find(' ', firstSpace + 1);
    request.method = requestLine.substr(0, firstSpace);
    request.target = requestLine.substr(firstSpace + 1, secondSpace - firstSpace - 1);
    std::size_t contentLength = 0;
    while (lineEnd != std::string::npos && lineEnd < head.size()) {
      const std::size_t start = lineEnd + 2;
      lineEnd = head.find("\r\n", start);
      const std::string line = head.substr(start, lineEnd == std::string::npos ? std::string::npos
                                                                               : lineEnd - start);
      const auto colon = line.find(':');
      if (colon == std::string::npos) continue;
      std::string value = line.substr(colon + 1);
      while (!value.empty() && value.front() == ' ') value.erase(0, 1);
      request.headers.emplace_back(line.substr(0, colon), value);
      if (::strcasecmp(line.substr(0, colon).c_str(), "Content-Length") == 0) {
        contentLength = std::strtoul(value.c_str(), nullptr, 10);
      }
    }
    buffer.erase(0, headEnd + 4);
    while (buffer.size() < contentLength) {
      const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
      if (n <= 0) {
        closeConnection(fd);
        return;
      }
      buffer.append(chunk, static_cast<std::size_t>(n));
    }
    request.body = buffer.substr(0, contentLength);
    buffer.erase(0, contentLength);

    Answer reply;
    std::function<Answer(const RecordedRequest&)> responder;
    {
      std::lock_guard lock(mu_);
      reply = Answer{status_, contentType_, body_};
      responder = responder_;
    }
    if (responder) reply = responder(request);
    const std::string answer = "HTTP/1.1 " + std::to_string(reply.status) +
                               " Answer\r\nContent-Type: " + reply.contentType +
                               "\r\nContent-Length: " + std::to_string(reply.body.size()) +
                               "\r\n\r\n" + reply.body;
    {
      // Recorded before the answer leaves, so a client that has its answer
      // always finds its request here.
      std::lock_guard lock(mu_);
      requests_.push_back(std::move(request));
    }
    switch (mode_) {
      case Mode::kAnswer:
        if (!sendAll(fd, answer)) {
          closeConnection(fd);
          return;
        }
        break;
      case Mode::kStall:
        break;  // keeps reading; the client gives up
      case Mode::kResetMidBody:
      case Mode::kTruncatedBody: {
        sendAll(fd, "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n"
                    "Content-Length: 100\r\n\r\n{\"partial\":");
        if (mode_ == Mode::kResetMidBody) {
          const linger reset{1, 0};  // close with RST instead of FIN
          ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        }
        closeConnection(fd);
        return;
      }
    }
  }
}

void RawHttpServer::closeConnection(int fd) {
  std::lock_guard lock(mu_);
  std::erase(connections_, fd);
  ::close(fd);
}

}  // namespace quorvia::testing
