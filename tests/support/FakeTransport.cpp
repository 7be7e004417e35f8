#include "support/FakeTransport.h"

#include <stdexcept>
#include <utility>

#include "platform/ConfigurableEnvironment.h"

namespace quorvia::testing {

std::shared_ptr<FakeTransport> FakeTransport::install() {
  auto fake = std::make_shared<FakeTransport>();
  dynamic_cast<platform::ConfigurableEnvironment&>(platform::environment()).setURLTransport(fake);
  return fake;
}

void FakeTransport::start(platform::URLRequest request, platform::ServerTrustPolicy, Done done) {
  std::lock_guard lock(mu_);
  calls_.emplace_back(std::move(request), std::move(done));
}

std::size_t FakeTransport::requestCount() const {
  std::lock_guard lock(mu_);
  return calls_.size();
}

platform::URLRequest FakeTransport::request(std::size_t index) const {
  std::lock_guard lock(mu_);
  return calls_.at(index).first;
}

std::vector<std::string> FakeTransport::requestLines() const {
  std::lock_guard lock(mu_);
  std::vector<std::string> lines;
  for (const auto& [request, done] : calls_) {
    const auto& url = request.url;
    lines.push_back(request.HTTPMethod + " " + (url ? url->path : "<no url>") +
                    (url && !url->query.empty() ? "?" + url->query : ""));
  }
  return lines;
}

std::string FakeTransport::bodyText(std::size_t index) const {
  std::lock_guard lock(mu_);
  const auto& body = calls_.at(index).first.HTTPBody;
  return std::string(body.begin(), body.end());
}

void FakeTransport::respond(std::size_t index, long status, std::string body) {
  platform::TransportResult result;
  result.data = platform::Bytes(body.begin(), body.end());
  result.response = platform::HTTPURLResponse{"", status, {}};
  answer(index, std::move(result));
}

void FakeTransport::fail(std::size_t index, std::int64_t code, std::string description) {
  platform::TransportResult result;
  result.error =
      platform::Error{platform::NSURLErrorDomain, code,
                      platform::Value{{platform::kNSLocalizedDescriptionKey, description}}};
  answer(index, std::move(result));
}

void FakeTransport::answer(std::size_t index, platform::TransportResult result) {
  Done done;
  {
    std::lock_guard lock(mu_);
    done = std::exchange(calls_.at(index).second, nullptr);
  }
  if (!done) throw std::logic_error("request answered twice");
  done(std::move(result));
}

}  // namespace quorvia::testing
