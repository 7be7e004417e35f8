#pragma once

// A client that speaks HTTP by hand, for requests no well-behaved client library sends: stalled
// headers, endless chunked bodies.

#include <cstddef>
#include <string>

namespace quorvia::devserver::testing {

// A connected loopback socket, closed on destruction; fd() is -1 when connecting failed.
class RawConnection final {
 public:
  explicit RawConnection(int port);
  ~RawConnection();
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  int fd() const { return fd_; }
  bool send(const std::string& bytes);

 private:
  int fd_ = -1;
};

// What came back for a request whose body never ends: the answer and how many body bytes the
// server took before it answered (or before `limit` bytes were sent and the body was ended).
struct EndlessBodyOutcome {
  std::string answer;
  size_t bytesSent = 0;
};

// Sends `head` (ending in a blank line, announcing a chunked body) and then 1 MiB chunks until
// the server answers or closes, or `limit` bytes went out. Every wait is bounded.
EndlessBodyOutcome sendEndlessChunkedBody(int port, const std::string& head, size_t limit);

}  // namespace quorvia::devserver::testing
