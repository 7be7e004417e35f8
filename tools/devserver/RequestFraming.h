#pragma once

#include <httplib.h>

#include <cstdint>
#include <string>

namespace quorvia::devserver {

// Where a request's body ends, read from its headers as RFC 9112 §6.3 reads them. Headers that
// two readers could take for different lengths make the request faulty: a server that guessed
// would read the rest of the body as a request of its own (request smuggling).
struct BodyFraming {
  enum class Kind {
    kLength,   // `length` bytes follow the headers; 0 without Content-Length
    kChunked,  // Transfer-Encoding: chunked
    kFaulty,   // to be answered `status` with `problem`, and the connection closed
  };
  Kind kind = Kind::kLength;
  // kLength: the announced size; one too large for 64 bits reads as the largest value.
  uint64_t length = 0;
  int status = 0;
  std::string problem;
};

// The framing of `request` (its version and headers). Pure function.
BodyFraming bodyFraming(const httplib::Request& request);

}  // namespace quorvia::devserver
