#include "BoundedBody.h"

#include <string>
#include <utility>

#include "JsonResponse.h"

namespace quorvia::devserver {

httplib::Server::HandlerWithContentReader withBoundedBody(size_t maxBytes,
                                                          httplib::Server::Handler handler) {
  return [maxBytes, handler = std::move(handler)](const httplib::Request& request,
                                                  httplib::Response& response,
                                                  const httplib::ContentReader& reader) {
    std::string body;
    bool tooLarge = false;
    bool complete = reader([&](const char* data, size_t length) {
      if (length > maxBytes - body.size()) {
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
