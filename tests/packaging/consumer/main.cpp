// A host built against an installed quorvia, as a new user builds one, run
// against a real poll service: it starts the SDK without interception,
// registers a device token, becomes active, sees the service's poll presented
// as a banner (built from the installed layout files) and answers it.
//   quorvia_consumer SERVICE_URL POLL_ID
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/Application.h"
#include "quorvia/platform/Environment.h"
#include "quorvia/platform/RunLoop.h"

namespace {

using namespace quorvia;

// The desktop, in a throw-away data directory, remembering its log lines.
class ConsumerEnvironment final : public platform::EnvironmentWrapper {
 public:
  using EnvironmentWrapper::EnvironmentWrapper;
  void log(std::string_view line) override {
    std::lock_guard lock(mu_);
    lines_.emplace_back(line);
    std::fprintf(stdout, "log: %.*s\n", static_cast<int>(line.size()), line.data());
  }
  bool logged(const std::string& line) {
    std::lock_guard lock(mu_);
    return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
  }
  bool loggedStarting(const std::string& prefix) {
    std::lock_guard lock(mu_);
    return std::any_of(lines_.begin(), lines_.end(),
                       [&](const std::string& line) { return line.starts_with(prefix); });
  }

 private:
  std::mutex mu_;
  std::vector<std::string> lines_;
};

int fail(const std::string& why) {
  std::fprintf(stderr, "quorvia_consumer: %s\n", why.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return fail("usage: quorvia_consumer SERVICE_URL POLL_ID");
  if (QuorviaSDK::version() != QUORVIA_VERSION) return fail("library and headers disagree");
  ::setenv("QUORVIA_SERVICE_BASE_URL", argv[1], 1);
  const auto data =
      std::filesystem::temp_directory_path() / ("quorvia-consumer-" + std::to_string(::getpid()));
  auto env = std::make_shared<ConsumerEnvironment>(platform::makeDesktopEnvironment(
      {"quorvia-consumer", data, platform::RunLoop::Clock::kReal, /*push=*/false,
       /*notifications=*/false}));
  platform::installEnvironment(env);
  auto& loop = platform::mainRunLoop();
  const auto waitFor = [&](const std::string& line) {
    return loop.runUntil([&] { return env->logged(line); }, platform::seconds(20));
  };

  QuorviaSDK::initWithAppToken("consumer-app-token", std::nullopt, /*swizzling=*/false);
  // Without interception the host hands the SDK its device token itself; one
  // of its own per run, as each run is a device of its own.
  platform::Bytes token(32, 0xC5);
  for (int i = 0, pid = ::getpid(); i < 4; ++i)
    token[i] = static_cast<std::uint8_t>(pid >> (8 * i));
  QuorviaSDK::setDeviceToken(token);
  const bool registered = waitFor("QuorviaSDK: Successfully registered device push token.");
  platform::Application::sharedApplication().setActive(true);  // the window got the focus
  const bool presented = registered && waitFor("QuorviaSDK: Presenting poll: Installed?");
  loop.runFor(platform::seconds(0.5));  // the slide-in
  // The banner would show without them too (the shipped layouts are built
  // in), so only the absence of the lines that say so tells they were found.
  const bool laidOut = !env->loggedStarting("QuorviaSDK: resource bundle") &&
                       !env->loggedStarting("Could not load layout file") &&
                       !env->loggedStarting("Malformed layout file");
  if (presented && laidOut) {
    QuorviaSDK::handleActionWithIdentifier("Yes",
                                           platform::Value{{"poll", {{"id", std::atoi(argv[2])}}}});
  }
  const bool replied = presented && laidOut && waitFor("QuorviaSDK: Successfuly sent reply: Yes");
  std::filesystem::remove_all(data);
  if (!registered) return fail("the device did not register");
  if (!presented) return fail("no banner presented from the fetched poll");
  if (!laidOut) return fail("the installed layout files were not found");
  if (!replied) return fail("the reply was not sent");
  std::printf("banner shown from a fetched poll, reply sent\n");
  return 0;
}
