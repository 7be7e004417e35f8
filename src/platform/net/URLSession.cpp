#include "platform/URLSession.h"

#include <strings.h>

#include "quorvia/platform/Environment.h"
#include "quorvia/platform/RunLoop.h"

namespace quorvia::platform {
namespace {

bool sameField(std::string_view a, std::string_view b) {
  return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
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

std::shared_ptr<URLTransport> sharedURLTransport() { return environment().urlTransport(); }

URLSession::URLSession(ServerTrustPolicy trust) : URLSession(sharedURLTransport(), trust) {}

URLSession::URLSession(std::shared_ptr<URLTransport> transport, ServerTrustPolicy trust)
    : transport_(std::move(transport)), trust_(trust) {}

void URLSession::dataTaskWithRequest(URLRequest request, CompletionHandler handler,
                                     BodyReader readBody) {
  transport_->start(
      std::move(request), trust_,
      [handler = std::move(handler),
       readBody = std::move(readBody)](TransportResult result) mutable {
        if (readBody && !result.error) readBody(result.data ? *result.data : Bytes{});
        // Moved, not copied, into the main-queue task: what the
        // handler captured must die on the main queue, never on
        // the transport's thread.
        dispatch_async([handler = std::move(handler), result = std::move(result)]() mutable {
          auto call = std::move(handler);
          if (result.error) {
            call(std::nullopt, std::nullopt, std::move(result.error));
          } else {
            call(std::move(result.data), std::move(result.response), std::nullopt);
          }
        });
      });
}

}  // namespace quorvia::platform
