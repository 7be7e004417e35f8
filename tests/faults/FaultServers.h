#pragma once
// Loopback servers that misbehave in one way each, for the fault suite. Every
// one listens on 127.0.0.1 on an ephemeral port and stops in its destructor.

#include <memory>
#include <string>

namespace quorvia::testing {

/// A server (or an address) the SDK's base URL points at.
class FaultServer {
 public:
  virtual ~FaultServer() = default;
  /// The service base URL, without a trailing slash.
  virtual std::string baseURL() const = 0;
  /// Requests the server has read so far (0 where it cannot tell).
  virtual std::size_t requestCount() const { return 0; }
};

/// A port that is bound but never listens: every connection is refused.
std::unique_ptr<FaultServer> makeRefusingAddress();
/// A name under ".invalid", which never resolves.
std::unique_ptr<FaultServer> makeUnresolvableHost();
/// Accepts and reads requests, never answers.
std::unique_ptr<FaultServer> makeStallingServer();
/// Sends the headers and half the body, then resets the connection.
std::unique_ptr<FaultServer> makeResettingServer();
/// Promises a longer body than it sends, then closes cleanly.
std::unique_ptr<FaultServer> makeTruncatingServer();
/// Answers every request with `status`, `contentType` and `body`.
std::unique_ptr<FaultServer> makeAnsweringServer(int status, std::string contentType,
                                                 std::string body);
/// Redirects every request to itself.
std::unique_ptr<FaultServer> makeRedirectLoop();
/// HTTPS with a throwaway self-signed certificate, answering `body` as JSON.
std::unique_ptr<FaultServer> makeSelfSignedServer(std::string body);

}  // namespace quorvia::testing
