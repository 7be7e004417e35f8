#include "DevServer.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "AdminApi.h"
#include "BoundedBody.h"
#include "Dashboard.h"
#include "JsonResponse.h"
#include "ServiceApi.h"

namespace quorvia::devserver {

namespace {

constexpr const char* kSecretSetting = "jwt_secret";
constexpr size_t kSecretBytes = 32;

using Clock = std::chrono::steady_clock;

// When the request that this worker thread is handling reached routing; the logger runs on the
// same thread right after the response is written. Requests that httplib or the framing check
// refuse (a garbled request line, faulty framing) never reach it and are logged without a time.
thread_local std::optional<Clock::time_point> requestStart;

std::string defaultStatusMessage(int status) {
  switch (status) {
    case 400:
      return "bad request";
    case 404:
      return "not found";
    case 413:
      return "request body too large";
    case 414:
      return "request URI too long";
    default:
      return "HTTP status " + std::to_string(status);
  }
}

std::optional<std::string> signingSecret(const DevServerOptions& options, PollStore& store,
                                         std::string* error) {
  if (!options.jwtSecret.empty()) return options.jwtSecret;
  if (std::optional<std::string> stored = store.setting(kSecretSetting)) {
    if (!stored->empty()) return stored;
  }
  std::string generated = randomHex(kSecretBytes);
  if (generated.empty() || !store.setSetting(kSecretSetting, generated)) {
    if (error) *error = "cannot generate and store the token signing secret";
    return std::nullopt;
  }
  return generated;
}

}  // namespace

std::unique_ptr<DevServer> DevServer::open(DevServerOptions options, std::string* error) {
  // Room for the request line and headers on top of the largest body.
  options.limits.maxRequestBytes =
      std::max(options.limits.maxRequestBytes, options.maxBodyBytes + 64 * 1024);
  std::unique_ptr<PollStore> store = PollStore::open(options.database, error);
  if (!store) return nullptr;
  std::optional<std::string> secret = signingSecret(options, *store, error);
  if (!secret) return nullptr;
  return std::unique_ptr<DevServer>(
      new DevServer(std::move(options), std::move(store), std::move(*secret)));
}

DevServer::DevServer(DevServerOptions options, std::unique_ptr<PollStore> store, std::string secret)
    : options_(std::move(options)),
      store_(std::move(store)),
      tokens_(std::move(secret)),
      gate_(options_.adminToken),
      server_(options_.limits) {
  // Without it every loopback round trip waits on Nagle and delayed ACK.
  server_.set_tcp_nodelay(true);
  server_.set_payload_max_length(options_.maxBodyBytes);

  server_.setAdmission([this](const httplib::Request& request, httplib::Response& response) {
    requestStart = Clock::now();
    if (AdminGate::guards(request.path) && !gate_.admit(request, response)) {
      return httplib::Server::HandlerResponse::Handled;
    }
    return httplib::Server::HandlerResponse::Unhandled;
  });
  // Every refusal is JSON, including the ones httplib makes itself (unknown path, oversized or
  // unreadable body); a handler's own error body is left as it is.
  server_.set_error_handler(httplib::Server::HandlerWithResponse(
      [](const httplib::Request&, httplib::Response& response) {
        if (!response.body.empty()) return httplib::Server::HandlerResponse::Unhandled;
        sendError(response, response.status, defaultStatusMessage(response.status));
        return httplib::Server::HandlerResponse::Handled;
      }));
  server_.set_exception_handler(
      [](const httplib::Request& request, httplib::Response& response, std::exception_ptr ep) {
        std::string what = "unknown exception";
        try {
          std::rethrow_exception(ep);
        } catch (const std::exception& e) {
          what = e.what();
        } catch (...) {
        }
        std::fprintf(stderr, "quorvia-devserver: %s %s failed: %s\n", request.method.c_str(),
                     request.path.c_str(), what.c_str());
        sendError(response, 500, "internal error");
      });
  server_.set_logger([this](const httplib::Request& request, const httplib::Response& response) {
    std::string elapsed = "-";
    if (requestStart) {
      auto micros =
          std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - *requestStart);
      char text[32];
      std::snprintf(text, sizeof text, "%.1f ms", static_cast<double>(micros.count()) / 1000.0);
      elapsed = text;
      requestStart.reset();
    }
    std::string line = (request.method.empty() ? "-" : request.method) + " " +
                       (request.path.empty() ? "-" : request.path) + " " +
                       std::to_string(response.status) + " " + elapsed;
    if (options_.requestLog) {
      options_.requestLog(line);
    } else {
      std::printf("%s\n", line.c_str());
      std::fflush(stdout);
    }
  });

  installServiceApi(server_, *store_, tokens_, events_, options_.maxBodyBytes);
  installAdminApi(server_, AdminContext{*store_, events_, options_.push, options_.maxBodyBytes});
  installDashboard(server_);
  installBoundedFallback(server_, options_.maxBodyBytes,
                         [](const httplib::Request&, httplib::Response& response) {
                           sendError(response, 404, "not found");
                         });
}

DevServer::~DevServer() { stop(); }

int DevServer::bind(const std::string& host, int port) {
  int bound = server_.bindListening(host, port);
  if (bound > 0) gate_.setListening(host, bound);
  return bound;
}

bool DevServer::run() {
  {
    std::lock_guard lock(mutex_);
    if (stopRequested_) return true;
    running_ = true;
  }
  bool served = server_.listen_after_bind();
  {
    std::lock_guard lock(mutex_);
    running_ = false;
  }
  stateChanged_.notify_all();
  return served;
}

void DevServer::stop() {
  events_.close();
  server_.beginShutdown();
  std::unique_lock lock(mutex_);
  stopRequested_ = true;
  // httplib ignores stop() until its accept loop has started, so keep asking until run() is out.
  while (running_) {
    server_.stop();
    stateChanged_.wait_for(lock, std::chrono::milliseconds(10));
  }
}

}  // namespace quorvia::devserver
