#pragma once
// A transport double that records every request and answers it only when the
// test says so: unit tests see the exact request the SDK built and decide when
// its answer arrives, without a network.

#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/ConfigurableEnvironment.h"
#include "platform/URLSession.h"

namespace quorvia::testing {

class FakeTransport final : public platform::URLTransport {
 public:
  /// Installs a new fake as the process's transport; call before the first request.
  static std::shared_ptr<FakeTransport> install() {
    auto fake = std::make_shared<FakeTransport>();
    dynamic_cast<platform::ConfigurableEnvironment&>(platform::environment()).setURLTransport(fake);
    return fake;
  }

  void start(platform::URLRequest request, platform::ServerTrustPolicy, Done done) override {
    std::lock_guard lock(mu_);
    calls_.emplace_back(std::move(request), std::move(done));
  }

  std::size_t requestCount() const {
    std::lock_guard lock(mu_);
    return calls_.size();
  }
  platform::URLRequest request(std::size_t index) const {
    std::lock_guard lock(mu_);
    return calls_.at(index).first;
  }
  /// "METHOD path" of each request, e.g. "POST /polls/7/replies/".
  std::vector<std::string> requestLines() const {
    std::lock_guard lock(mu_);
    std::vector<std::string> lines;
    for (const auto& [request, done] : calls_) {
      const auto& url = request.url;
      lines.push_back(request.HTTPMethod + " " + (url ? url->path : "<no url>") +
                      (url && !url->query.empty() ? "?" + url->query : ""));
    }
    return lines;
  }
  std::string bodyText(std::size_t index) const {
    std::lock_guard lock(mu_);
    const auto& body = calls_.at(index).first.HTTPBody;
    return std::string(body.begin(), body.end());
  }

  /// Answers a pending request (at most once); the session delivers it on the main queue.
  void respond(std::size_t index, long status, std::string body) {
    platform::TransportResult result;
    result.data = platform::Bytes(body.begin(), body.end());
    result.response = platform::HTTPURLResponse{"", status, {}};
    answer(index, std::move(result));
  }
  void fail(std::size_t index, std::int64_t code, std::string description) {
    platform::TransportResult result;
    result.error =
        platform::Error{platform::NSURLErrorDomain, code,
                        platform::Value{{platform::kNSLocalizedDescriptionKey, description}}};
    answer(index, std::move(result));
  }

 private:
  void answer(std::size_t index, platform::TransportResult result) {
    Done done;
    {
      std::lock_guard lock(mu_);
      done = std::exchange(calls_.at(index).second, nullptr);
    }
    if (!done) throw std::logic_error("request answered twice");
    done(std::move(result));
  }

  mutable std::mutex mu_;
  std::vector<std::pair<platform::URLRequest, Done>> calls_;  // Done is empty once answered
};

}  // namespace quorvia::testing
