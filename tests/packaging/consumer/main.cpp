// A host built against an installed quorvia: starts the SDK without
// interception, hands it a pushed poll, and exits 0 once the banner (built
// from the installed layout files) is on screen. No service is needed: the
// start-up fetch goes to a closed loopback port and fails.
//   quorvia_consumer
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "quorvia/QuorviaSDK.h"
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
    for (const auto& l : lines_) {
      if (l == line) return true;
    }
    return false;
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

int main() {
  if (QuorviaSDK::version() != QUORVIA_VERSION) return fail("library and headers disagree");
  ::setenv("QUORVIA_SERVICE_BASE_URL", "http://127.0.0.1:9", 1);
  const auto data = std::filesystem::temp_directory_path() /
                    ("quorvia-consumer-" + std::to_string(::getpid()));
  auto env = std::make_shared<ConsumerEnvironment>(
      platform::makeDesktopEnvironment({"quorvia-consumer", data, platform::RunLoop::Clock::kReal,
                                        /*push=*/false}));
  platform::installEnvironment(env);

  QuorviaSDK::initWithAppToken("consumer-app-token", std::nullopt, /*swizzling=*/false);
  QuorviaSDK::handleRemoteNotification(platform::Value{
      {"poll", {{"id", 1}, {"question", "Installed?"}, {"options", {{{"text", "Yes"}}}}}}});
  platform::mainRunLoop().runFor(platform::seconds(0.5));  // the slide-in
  std::filesystem::remove_all(data);
  if (!env->logged("QuorviaSDK: Presenting poll: Installed?")) return fail("no banner presented");
  if (env->logged("QuorviaSDK: Could not load the poll banner's layout files; the poll is not "
                  "shown.")) {
    return fail("the installed layout files were not found");
  }
  std::printf("banner shown\n");
  return 0;
}
