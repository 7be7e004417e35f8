// A host built against an installed quorvia: starts the SDK without
// interception on its own main queue, answers the poll fetch from an
// in-process transport, and exits 0 once the banner (built from the installed
// layout files) is on screen.
//   quorvia_consumer <install prefix>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/Bundle.h"
#include "quorvia/platform/Device.h"
#include "quorvia/platform/Environment.h"
#include "quorvia/platform/KeychainStore.h"
#include "quorvia/platform/RunLoop.h"
#include "quorvia/platform/URLSession.h"

namespace {

using namespace quorvia;

// Every request gets one pending poll, delivered from the main queue.
class OnePollTransport final : public platform::URLTransport {
 public:
  void start(platform::URLRequest request, platform::ServerTrustPolicy, Done done) override {
    platform::dispatch_async([request = std::move(request), done = std::move(done)] {
      const std::string body =
          R"({"results":[{"id":1,"question":"Installed?","options":[{"text":"Yes"}]}]})";
      platform::TransportResult result;
      result.response =
          platform::HTTPURLResponse{request.url ? request.url->absoluteString : "", 200, {}};
      result.data = platform::Bytes(body.begin(), body.end());
      done(std::move(result));
    });
  }
};

// The desktop, with log lines on stdout, keychain items in memory and the
// transport above.
class ConsumerEnvironment final : public platform::EnvironmentWrapper {
 public:
  using EnvironmentWrapper::EnvironmentWrapper;
  void log(std::string_view line) override {
    std::fprintf(stdout, "log: %.*s\n", static_cast<int>(line.size()), line.data());
  }
  std::shared_ptr<platform::URLTransport> urlTransport() override { return transport_; }
  std::shared_ptr<platform::KeychainStore> keychainStore() override { return keychain_; }

 private:
  std::shared_ptr<platform::URLTransport> transport_ = std::make_shared<OnePollTransport>();
  std::shared_ptr<platform::KeychainStore> keychain_ = platform::makeInMemoryKeychainStore();
};

int fail(const std::string& why) {
  std::fprintf(stderr, "quorvia_consumer: %s\n", why.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return fail("usage: quorvia_consumer <install prefix>");
  const std::filesystem::path prefix = std::filesystem::weakly_canonical(argv[1]);

  platform::installEnvironment(
      std::make_shared<ConsumerEnvironment>(platform::makeDesktopEnvironment(
          {"quorvia-consumer", std::filesystem::temp_directory_path() /
                                   ("quorvia-consumer-" + std::to_string(::getpid()))})));

  const auto bundle = platform::Bundle::bundleWithIdentifier("com.quorvia.sdk.ios");
  if (!bundle) return fail("resource bundle not found");
  const std::string where = std::filesystem::weakly_canonical(bundle->bundlePath()).string();
  std::printf("resource bundle: %s\n", where.c_str());
  if (where.rfind(prefix.string(), 0) != 0) return fail("resource bundle is not the installed one");

  QuorviaSDK::initWithAppToken("consumer-app-token", std::nullopt, /*swizzling=*/false);
  const bool shown = platform::mainRunLoop().runUntil(
      [] { return QuorviaSDK::sharedInstance()->presentedPollView() != nullptr; },
      platform::seconds(10));
  platform::mainRunLoop().runFor(platform::seconds(0.5));  // let the slide-in finish
  std::filesystem::remove_all(platform::dataDirectory());
  if (!shown) return fail("no banner after start-up");
  std::printf("banner shown\n");
  return 0;
}
