#pragma once

#include <httplib.h>

#include <cstddef>

namespace quorvia::devserver {

// The cap on form bodies (Content-Type: application/x-www-form-urlencoded), the one httplib
// applies when it reads a body itself, which it does not for the routes here.
constexpr size_t kMaxFormBodyBytes = 8192;

// Wraps `handler` so that it sees the request's body only once the whole body has arrived and
// is at most `maxBytes` long (kMaxFormBodyBytes for a form), whether it came with a
// Content-Length or chunked. A Content-Length over the cap is answered 413 at once, without
// reading the body; a longer chunked body is answered 413 after reading no more than the cap of
// it; a body that breaks off is answered 400. The connection is closed after any of these.
httplib::Server::HandlerWithContentReader withBoundedBody(size_t maxBytes,
                                                          httplib::Server::Handler handler);

// Routes every POST, PUT, PATCH and DELETE that no earlier route took to `handler` through
// withBoundedBody, so that a body sent to an unknown path is capped too. Install last.
void installBoundedFallback(httplib::Server& server, size_t maxBytes,
                            const httplib::Server::Handler& handler);

}  // namespace quorvia::devserver
