#pragma once
// A transport double that records every request and answers it when the test
// says so (or at once, with a scripted answer), so that unit tests see the
// exact request the SDK built without a network.

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "platform/URLSession.h"

namespace quorvia::testing {

class FakeTransport final : public platform::URLTransport {
 public:
  /// Answers every later request at once (on the main queue) when set.
  using Responder = std::function<platform::TransportResult(const platform::URLRequest&)>;

  /// Installs a new fake as the process's transport; call before the first request.
  static std::shared_ptr<FakeTransport> install();

  void start(platform::URLRequest request, platform::ServerTrustPolicy trust, Done done) override;

  void setResponder(Responder responder);
  std::size_t requestCount() const;
  platform::URLRequest request(std::size_t index) const;
  /// "METHOD path" of each request, e.g. "POST /polls/7/replies/".
  std::vector<std::string> requestLines() const;
  std::string bodyText(std::size_t index) const;
  std::string header(std::size_t index, const std::string& name) const;
  /// Answers a pending request; the session delivers it on the main queue.
  void respond(std::size_t index, long status, std::string body);
  void fail(std::size_t index, std::int64_t code, std::string description = "failed");

  static platform::TransportResult ok(std::string body, long status = 200);
  static platform::TransportResult error(std::int64_t code, std::string description = "failed");

 private:
  struct Call {
    platform::URLRequest request;
    Done done;
    bool answered = false;
  };
  void answer(std::size_t index, platform::TransportResult result);

  mutable std::mutex mu_;
  std::vector<Call> calls_;
  Responder responder_;
};

}  // namespace quorvia::testing
