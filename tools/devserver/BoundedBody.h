#pragma once

#include <httplib.h>

#include <cstddef>

namespace quorvia::devserver {

// Wraps `handler` so that it sees the request's body only once the whole body has arrived and
// is at most `maxBytes` long, whether it came with a Content-Length or chunked. A longer body is
// answered 413 after reading no more than `maxBytes` of it, and the connection is closed; a body
// that breaks off is answered 400. httplib itself caps only bodies with a Content-Length.
httplib::Server::HandlerWithContentReader withBoundedBody(size_t maxBytes,
                                                          httplib::Server::Handler handler);

// Routes every POST, PUT, PATCH and DELETE that no earlier route took to `handler` through
// withBoundedBody, so that a body sent to an unknown path is capped too. Install last.
void installBoundedFallback(httplib::Server& server, size_t maxBytes,
                            const httplib::Server::Handler& handler);

}  // namespace quorvia::devserver
