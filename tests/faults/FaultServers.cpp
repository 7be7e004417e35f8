#include "support/SelfSignedIdentity.h"
#include "faults/FaultServers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <sys/socket.h>
#include <unistd.h>

#include <httplib.h>

#include <stdexcept>
#include <thread>

#include "networking/RawHttpServer.h"

namespace quorvia::testing {
namespace {

std::string loopbackURL(const std::string& scheme, int port) {
  return scheme + "://127.0.0.1:" + std::to_string(port);
}

class RefusingAddress final : public FaultServer {
 public:
  RefusingAddress() {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
      throw std::runtime_error("cannot bind a loopback port");
    }
    port_ = ntohs(addr.sin_port);
  }
  ~RefusingAddress() override { ::close(fd_); }
  std::string baseURL() const override { return loopbackURL("http", port_); }

 private:
  int fd_ = -1;
  int port_ = 0;
};

class FixedAddress final : public FaultServer {
 public:
  explicit FixedAddress(std::string url) : url_(std::move(url)) {}
  std::string baseURL() const override { return url_; }

 private:
  std::string url_;
};

class RawServer final : public FaultServer {
 public:
  explicit RawServer(RawHttpServer::Mode mode) : server_(mode) {}
  RawHttpServer& server() { return server_; }
  std::string baseURL() const override { return loopbackURL("http", server_.port()); }
  std::size_t requestCount() const override { return server_.requestCount(); }

 private:
  RawHttpServer server_;
};


// An httplib server on its own thread; `Server` is httplib::Server or SSLServer.
template <typename Server>
class HttplibServer final : public FaultServer {
 public:
  template <typename... Args>
  HttplibServer(std::string scheme, Args&&... args)
      : scheme_(std::move(scheme)), server_(std::forward<Args>(args)...) {}
  ~HttplibServer() override {
    server_.stop();
    if (thread_.joinable()) thread_.join();
  }
  Server& server() { return server_; }
  void start() {
    server_.set_tcp_nodelay(true);
    // One request a connection: stopping never waits out a kept-alive one.
    server_.set_keep_alive_max_count(1);
    port_ = server_.bind_to_any_port("127.0.0.1");
    if (port_ <= 0) throw std::runtime_error("cannot bind a loopback port");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
  }
  std::string baseURL() const override { return loopbackURL(scheme_, port_); }
  std::size_t requestCount() const override { return requests_.load(); }
  std::atomic<std::size_t>& requests() { return requests_; }

 private:
  std::string scheme_;
  Server server_;
  int port_ = 0;
  std::atomic<std::size_t> requests_{0};
  std::thread thread_;
};

}  // namespace

std::unique_ptr<FaultServer> makeRefusingAddress() { return std::make_unique<RefusingAddress>(); }

std::unique_ptr<FaultServer> makeUnresolvableHost() {
  return std::make_unique<FixedAddress>("http://quorvia-faults.invalid");
}

std::unique_ptr<FaultServer> makeStallingServer() {
  return std::make_unique<RawServer>(RawHttpServer::Mode::kStall);
}

std::unique_ptr<FaultServer> makeResettingServer() {
  return std::make_unique<RawServer>(RawHttpServer::Mode::kResetMidBody);
}

std::unique_ptr<FaultServer> makeTruncatingServer() {
  return std::make_unique<RawServer>(RawHttpServer::Mode::kTruncatedBody);
}

std::unique_ptr<FaultServer> makeAnsweringServer(int status, std::string contentType,
                                                 std::string body) {
  auto server = std::make_unique<RawServer>(RawHttpServer::Mode::kAnswer);
  server->server().setAnswer(status, std::move(contentType), std::move(body));
  return server;
}

std::unique_ptr<FaultServer> makeRedirectLoop() {
  auto server = std::make_unique<HttplibServer<httplib::Server>>("http");
  auto* raw = server.get();
  const auto loop = [raw](const httplib::Request& req, httplib::Response& res) {
    raw->requests().fetch_add(1);
    res.set_redirect(req.path, 302);
  };
  server->server().Get(".*", loop);
  server->server().Post(".*", loop);
  server->start();
  return server;
}

std::unique_ptr<FaultServer> makeSelfSignedServer(std::string body) {
  SelfSignedIdentity identity;  // the server keeps its own references
  auto server =
      std::make_unique<HttplibServer<httplib::SSLServer>>("https", identity.cert, identity.key);
  if (!server->server().is_valid()) throw std::runtime_error("TLS server did not start");
  auto* raw = server.get();
  const auto answer = [raw, body](const httplib::Request&, httplib::Response& res) {
    raw->requests().fetch_add(1);
    res.set_content(body, "application/json");
  };
  server->server().Get(".*", answer);
  server->server().Post(".*", answer);
  server->start();
  return server;
}

}  // namespace quorvia::testing
