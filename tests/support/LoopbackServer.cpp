#include "support/LoopbackServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

namespace quorvia::testing {

// A throwaway self-signed identity for 127.0.0.1 and the context serving it.
struct LoopbackServer::Tls {
  SSL_CTX* context = SSL_CTX_new(TLS_server_method());
  Tls() {
    // OpenSSL writes without MSG_NOSIGNAL: a client that hangs up must not kill the test.
    std::signal(SIGPIPE, SIG_IGN);
    EVP_PKEY* key = EVP_RSA_gen(2048);
    X509* cert = X509_new();
    ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert), 3600);
    X509_set_pubkey(cert, key);
    X509_NAME* name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
    X509_set_issuer_name(cert, name);
    X509_sign(cert, key, EVP_sha256());
    const bool ok = context && SSL_CTX_use_certificate(context, cert) == 1 &&
                    SSL_CTX_use_PrivateKey(context, key) == 1;
    X509_free(cert);
    EVP_PKEY_free(key);
    if (!ok) throw std::runtime_error("cannot set up the TLS identity");
  }
  ~Tls() { SSL_CTX_free(context); }
};

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

LoopbackServer::LoopbackServer(Behaviour behaviour, bool tls)
    : behaviour_(behaviour), tls_(tls ? std::make_unique<Tls>() : nullptr) {
  listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::runtime_error("cannot bind a loopback port");
  }
  port_ = ntohs(address.sin_port);
  if (behaviour_ == Behaviour::kRefuse) return;
  if (::listen(listenFd_, 64) != 0) throw std::runtime_error("cannot listen on loopback");
  acceptor_ = std::thread([this] { acceptLoop(); });
}

LoopbackServer::~LoopbackServer() {
  stopping_ = true;
  ::shutdown(listenFd_, SHUT_RDWR);
  if (acceptor_.joinable()) acceptor_.join();
  {
    std::lock_guard lock(mu_);
    for (const int fd : connections_) ::shutdown(fd, SHUT_RDWR);
  }
  for (auto& worker : workers_) worker.join();
  ::close(listenFd_);
}

std::string LoopbackServer::baseURL() const {
  return (tls_ ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(port_);
}

void LoopbackServer::setReply(Reply reply) {
  std::lock_guard lock(mu_);
  reply_ = std::move(reply);
}

void LoopbackServer::setResponder(std::function<Reply(const RecordedRequest&)> responder) {
  std::lock_guard lock(mu_);
  responder_ = std::move(responder);
}

std::vector<RecordedRequest> LoopbackServer::requests() const {
  std::lock_guard lock(mu_);
  return requests_;
}

std::size_t LoopbackServer::requestCount() const {
  std::lock_guard lock(mu_);
  return requests_.size();
}

void LoopbackServer::acceptLoop() {
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

void LoopbackServer::serve(int fd) {
  // One accepted connection, plain or TLS.
  const std::unique_ptr<SSL, void (*)(SSL*)> ssl(tls_ ? SSL_new(tls_->context) : nullptr, SSL_free);
  bool open = !ssl || (SSL_set_fd(ssl.get(), fd) == 1 && SSL_accept(ssl.get()) == 1);
  std::string buffer;
  char chunk[16384];
  const auto readMore = [&] {
    const long n =
        ssl ? SSL_read(ssl.get(), chunk, sizeof chunk) : ::recv(fd, chunk, sizeof chunk, 0);
    if (n > 0) buffer.append(chunk, static_cast<std::size_t>(n));
    return n > 0;
  };
  const auto sendAll = [&](const std::string& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
      const char* from = bytes.data() + sent;
      const std::size_t left = bytes.size() - sent;
      const long n = ssl ? SSL_write(ssl.get(), from, static_cast<int>(left))
                         : ::send(fd, from, left, MSG_NOSIGNAL);
      if (n <= 0) return false;
      sent += static_cast<std::size_t>(n);
    }
    return true;
  };
  while (open) {
    // One request: the head, then a body of Content-Length bytes.
    std::size_t headEnd;
    while ((headEnd = buffer.find("\r\n\r\n")) == std::string::npos && (open = readMore())) {
    }
    if (!open) break;
    RecordedRequest request;
    std::istringstream head(buffer.substr(0, headEnd));
    std::string line;
    std::getline(head, line);
    std::istringstream(line) >> request.method >> request.target;
    std::size_t contentLength = 0;
    while (std::getline(head, line)) {
      if (line.ends_with('\r')) line.pop_back();
      const auto colon = line.find(':');
      if (colon == std::string::npos) continue;
      std::string name = line.substr(0, colon), value = line.substr(colon + 1);
      value.erase(0, value.find_first_not_of(' '));
      if (::strcasecmp(name.c_str(), "Content-Length") == 0) {
        contentLength = std::strtoul(value.c_str(), nullptr, 10);
      }
      request.headers.emplace_back(std::move(name), std::move(value));
    }
    buffer.erase(0, headEnd + 4);
    while (buffer.size() < contentLength && (open = readMore())) {
    }
    if (!open) break;
    request.body = buffer.substr(0, contentLength);
    buffer.erase(0, contentLength);

    std::unique_lock lock(mu_);
    Reply reply = reply_;
    const auto responder = responder_;
    lock.unlock();
    if (responder) reply = responder(request);
    std::string extra;
    if (behaviour_ == Behaviour::kRedirectToSelf) {
      reply = Reply{302, "text/plain", ""};
      extra = "Location: " + request.target + "\r\n";
    }
    // Recorded before the answer leaves, so a client that has its answer
    // always finds its request here.
    lock.lock();
    requests_.push_back(std::move(request));
    lock.unlock();
    if (behaviour_ == Behaviour::kStall) continue;  // keeps reading; the client gives up
    if (behaviour_ == Behaviour::kResetMidBody || behaviour_ == Behaviour::kTruncateBody) {
      sendAll(
          "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n"
          "Content-Length: 100\r\n\r\n{\"partial\":");
      if (behaviour_ == Behaviour::kResetMidBody) {
        const linger reset{1, 0};  // close with RST instead of FIN
        ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
      }
      break;
    }
    const std::string answerHead = "HTTP/1.1 " + std::to_string(reply.status) + " Reply\r\n" +
                                   extra + "Content-Type: " + reply.contentType + "\r\n";
    if (reply.streamedBytes == 0) {
      open = sendAll(answerHead + "Content-Length: " + std::to_string(reply.body.size()) +
                     "\r\n\r\n" + reply.body);
      continue;
    }
    open = sendAll(answerHead +
                   (reply.announceLength ? "Content-Length: " + std::to_string(reply.streamedBytes)
                                         : std::string("Transfer-Encoding: chunked")) +
                   "\r\n\r\n");
    const std::string spaces(64 * 1024, ' ');
    for (std::size_t left = reply.streamedBytes; open && left > 0;) {
      const std::size_t size = std::min(left, spaces.size());
      left -= size;
      std::ostringstream part;
      if (!reply.announceLength) part << std::hex << size << "\r\n";
      part << spaces.substr(0, size) << (reply.announceLength ? "" : "\r\n");
      open = sendAll(part.str());
    }
    if (open && !reply.announceLength) open = sendAll("0\r\n\r\n");
  }
  std::lock_guard lock(mu_);
  std::erase(connections_, fd);
  ::close(fd);
}

}  // namespace quorvia::testing
