#include "BoundedBody.h"

#include <algorithm>
#include <cctype>
#include <string>
#include <utility>

#include "JsonResponse.h"
#include "RequestFraming.h"

namespace quorvia::devserver {

namespace {

bool isForm(const httplib::Request& request) {
  std::string type = request.get_header_value("Content-Type");
  std::ranges::transform(type, type.begin(),
                         [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return type.starts_with("application/x-www-form-urlencoded");
}

}  // namespace

httplib::Server::HandlerWithContentReader withBoundedBody(size_t maxBytes,
                                                          httplib::Server::Handler handler) {
  return [maxBytes, handler = std::move(handler)](const httplib::Request& request,
                                                  httplib::Response& response,
                                                  const httplib::ContentReader& reader) {
    const size_t cap = isForm(request) ? std::min(maxBytes, kMaxFormBodyBytes) : maxBytes;
    BodyFraming framing = bodyFraming(request);
    if (framing.kind == BodyFraming::Kind::kLength && framing.length > cap) {
      // Refused from the header: waiting for a body that is going to be dropped only lets a
      // client hold the connection for as long as it takes to send it.
      response.set_header("Connection", "close");
      sendError(response, 413, "request body too large");
      return;
    }
    std::string body;
    bool tooLarge = false;
    bool complete = reader([&](const char* data, size_t length) {
      if (length > cap - body.size()) {
        tooLarge = true;
        return false;
      }
      body.append(data, length);
      return true;
    });
    if (!complete) {
      // What is left of the body is never read, so the connection cannot carry another request.
      response.set_header("Connection", "close");
      if (tooLarge || response.status == 413) {
        sendError(response, 413, "request body too large");
      } else {
        sendError(response, 400, "the request body ended early");
      }
      return;
    }
    // The copy's route matches still point into `request`, which outlives this call.
    httplib::Request whole = request;
    whole.body = std::move(body);
    handler(whole, response);
  };
}

void installBoundedFallback(httplib::Server& server, size_t maxBytes,
                            const httplib::Server::Handler& handler) {
  constexpr const char* kAnyPath = ".*";
  server.Post(kAnyPath, withBoundedBody(maxBytes, handler));
  server.Put(kAnyPath, withBoundedBody(maxBytes, handler));
  server.Patch(kAnyPath, withBoundedBody(maxBytes, handler));
  server.Delete(kAnyPath, withBoundedBody(maxBytes, handler));
}

}  // namespace quorvia::devserver
