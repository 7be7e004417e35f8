#include "quorvia/platform/URLSession.h"

#include <strings.h>

#include <atomic>
#include <chrono>
#include <limits>
#include <mutex>

#include "quorvia/platform/RunLoop.h"

namespace quorvia::platform {
namespace {

bool sameField(std::string_view a, std::string_view b) {
  return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::mutex& transportMutex() {
  static std::mutex mu;
  return mu;
}

// Answers that came at least this fast are worth polling for on the main
// thread; slower ones (any server across the internet) are slept for.
constexpr auto kLongestPolledAnswer = std::chrono::microseconds(250);

// How long the latest answer took, from start to completion, in steady-clock
// nanoseconds. Starts slow, so that nothing is polled for before one fast
// answer has been seen.
std::atomic<std::int64_t>& latestAnswerNanoseconds() {
  static std::atomic<std::int64_t> nanoseconds{std::numeric_limits<std::int64_t>::max()};
  return nanoseconds;
}

std::shared_ptr<URLTransport>& installedTransport() {
  static std::shared_ptr<URLTransport> transport;
  return transport;
}

}  // namespace

URLRequest URLRequest::requestWithURL(std::optional<URL> url) {
  URLRequest request;
  request.url = std::move(url);
  return request;
}

void URLRequest::setValueForHTTPHeaderField(std::string value, std::string_view field) {
  for (auto& header : allHTTPHeaderFields) {
    if (sameField(header.first, field)) {
      header.second = std::move(value);
      return;
    }
  }
  allHTTPHeaderFields.emplace_back(std::string(field), std::move(value));
}

std::optional<std::string> URLRequest::valueForHTTPHeaderField(std::string_view field) const {
  for (const auto& header : allHTTPHeaderFields) {
    if (sameField(header.first, field)) return header.second;
  }
  return std::nullopt;
}

URLTransport::~URLTransport() = default;

std::shared_ptr<URLTransport> sharedURLTransport() {
  std::lock_guard lock(transportMutex());
  auto& transport = installedTransport();
  if (!transport) transport = makeCurlTransport();
  return transport;
}

void setSharedURLTransport(std::shared_ptr<URLTransport> transport) {
  std::lock_guard lock(transportMutex());
  installedTransport() = std::move(transport);
}

URLSession::URLSession(ServerTrustPolicy trust) : URLSession(sharedURLTransport(), trust) {}

URLSession::URLSession(std::shared_ptr<URLTransport> transport, ServerTrustPolicy trust)
    : transport_(std::move(transport)), trust_(trust) {}

void URLSession::dataTaskWithRequest(URLRequest request, CompletionHandler handler) {
  const auto started = std::chrono::steady_clock::now();
  // When the server has been answering within 250 µs (loopback, a fast LAN)
  // the main loop polls for this answer rather than sleeping; a slow answer
  // turns that off again for the next request.
  if (latestAnswerNanoseconds().load(std::memory_order_relaxed) <=
      std::chrono::nanoseconds(kLongestPolledAnswer).count()) {
    mainRunLoop().expectPostWithin(kLongestPolledAnswer);
  }
  transport_->start(std::move(request), trust_,
                    [handler = std::move(handler), started](TransportResult result) {
    latestAnswerNanoseconds().store(
        std::chrono::nanoseconds(std::chrono::steady_clock::now() - started).count(),
        std::memory_order_relaxed);
    dispatch_async([handler, result = std::move(result)]() mutable {
      if (result.error) {
        handler(std::nullopt, std::nullopt, std::move(result.error));
      } else {
        handler(std::move(result.data), std::move(result.response), std::nullopt);
      }
    });
  });
}

}  // namespace quorvia::platform
