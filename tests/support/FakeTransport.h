#pragma once
// A transport double that records every request and answers it only when the
// test says so: unit tests see the exact request the SDK built and decide when
// its answer arrives, without a network.

#include <mutex>
#include <string>
#include <vector>

#include "platform/URLSession.h"

namespace quorvia::testing {

class FakeTransport final : public platform::URLTransport {
 public:
  /// Installs a new fake as the process's transport; call before the first request.
  static std::shared_ptr<FakeTransport> install();

  void start(platform::URLRequest request, platform::ServerTrustPolicy, Done done) override;

  std::size_t requestCount() const;
  platform::URLRequest request(std::size_t index) const;
  /// "METHOD path" of each request, e.g. "POST /polls/7/replies/".
  std::vector<std::string> requestLines() const;
  std::string bodyText(std::size_t index) const;
  /// Answers a pending request (at most once); the session delivers it on the main queue.
  void respond(std::size_t index, long status, std::string body);
  void fail(std::size_t index, std::int64_t code, std::string description);

 private:
  void answer(std::size_t index, platform::TransportResult result);

  mutable std::mutex mu_;
  std::vector<std::pair<platform::URLRequest, Done>> calls_;  // Done is empty once answered
};

}  // namespace quorvia::testing
