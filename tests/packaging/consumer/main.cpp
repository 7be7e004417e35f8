// A host built against an installed quorvia, as a new user builds one, run
// against a real poll service: it starts the SDK without interception,
// registers a device token, becomes active, sees the service's poll presented
// as a banner and answers it, learning each outcome from the SDK's events.
//   quorvia_consumer SERVICE_URL POLL_ID
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "quorvia/Observer.h"
#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/Application.h"
#include "quorvia/platform/Environment.h"
#include "quorvia/platform/RunLoop.h"

namespace {

// The desktop, in a throw-away data directory, watching only for the log
// lines that say the installed layout files were not found: the banner shows
// without them too (the shipped layouts are built in), so nothing else tells.
class ConsumerEnvironment final : public quorvia::platform::EnvironmentWrapper {
 public:
  using EnvironmentWrapper::EnvironmentWrapper;
  void log(std::string_view line) override {
    if (line.starts_with("QuorviaSDK: resource bundle") ||
        line.starts_with("Could not load layout file") ||
        line.starts_with("Malformed layout file")) {
      layoutsMissing_ = true;
    }
    EnvironmentWrapper::log(line);
  }
  bool layoutsMissing() const { return layoutsMissing_; }

 private:
  std::atomic<bool> layoutsMissing_{false};
};

int fail(const std::string& why) {
  std::fprintf(stderr, "quorvia_consumer: %s\n", why.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace quorvia;
  if (argc != 3) return fail("usage: quorvia_consumer SERVICE_URL POLL_ID");
  if (QuorviaSDK::version() != QUORVIA_VERSION) return fail("library and headers disagree");
  const auto data =
      std::filesystem::temp_directory_path() / ("quorvia-consumer-" + std::to_string(::getpid()));
  auto env = std::make_shared<ConsumerEnvironment>(
      platform::makeDesktopEnvironment({.appIdentifier = "quorvia-consumer",
                                        .dataDirectory = data,
                                        .push = false,
                                        .notifications = false,
                                        .serviceBaseURL = argv[1]}));
  platform::installEnvironment(env);
  bool registered = false;
  std::optional<PollEvent> presented;
  std::optional<ReplyEvent> replied;
  setObserver({.deviceRegistered = [&](const std::string&) { registered = true; },
               .deviceRegistrationFailed =
                   [](const RegistrationFailure& f) {
                     std::printf("not registered: %s\n", f.error.c_str());
                   },
               .pollPresented = [&](const PollEvent& poll) { presented = poll; },
               .replySent = [&](const ReplyEvent& reply) { replied = reply; }});
  auto& loop = platform::mainRunLoop();
  const auto waitFor = [&loop](const auto& done) {
    return loop.runUntil([&] { return static_cast<bool>(done); }, platform::seconds(20));
  };

  QuorviaSDK::initWithAppToken("consumer-app-token", std::nullopt, /*swizzling=*/false);
  // Without interception the host hands the SDK its device token itself; one
  // of its own per run, as each run is a device of its own.
  platform::Bytes token(32, 0xC5);
  for (int i = 0, pid = ::getpid(); i < 4; ++i)
    token[i] = static_cast<std::uint8_t>(pid >> (8 * i));
  QuorviaSDK::setDeviceToken(token);
  waitFor(registered);
  if (registered) platform::Application::sharedApplication().setActive(true);  // in front
  waitFor(presented);
  if (presented) {
    loop.runFor(platform::seconds(0.5));  // the slide-in
    QuorviaSDK::handleActionWithIdentifier("Yes",
                                           platform::Value{{"poll", {{"id", std::atoi(argv[2])}}}});
    waitFor(replied);
  }
  std::filesystem::remove_all(data);
  if (!registered) return fail("the device did not register");
  if (!presented) return fail("no banner presented from the fetched poll");
  if (presented->question != "Installed?" || presented->pollId != argv[2]) {
    return fail("presented another poll: " + presented->question.value_or("(no question)"));
  }
  if (env->layoutsMissing()) return fail("the installed layout files were not found");
  if (!replied) return fail("the reply did not finish");
  if (!replied->succeeded()) return fail("the reply failed: " + *replied->error);
  if (replied->replyText != "Yes" || replied->pollId != argv[2]) {
    return fail("replied something else: " + replied->replyText.value_or("(nil)"));
  }
  std::printf("banner shown from a fetched poll, reply sent\n");
  return 0;
}
