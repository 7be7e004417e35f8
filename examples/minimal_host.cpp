// The smallest host: starts the SDK without interception, asks for push
// permission, and shows the notification settings the SDK registered.
#include <cstdio>
#include <filesystem>

#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/Application.h"
#include "quorvia/platform/Environment.h"
#include "quorvia/platform/RunLoop.h"

int main() {
  using namespace quorvia;
  // The real desktop, in a throw-away data directory, with log lines on stdout.
  class PrintingEnvironment final : public platform::EnvironmentWrapper {
   public:
    using EnvironmentWrapper::EnvironmentWrapper;
    void log(std::string_view line) override {
      std::printf("log: %.*s\n", static_cast<int>(line.size()), line.data());
    }
  };
  platform::installEnvironment(std::make_shared<PrintingEnvironment>(platform::makeDesktopEnvironment(
      {.appIdentifier = "minimal-host",
       .dataDirectory = std::filesystem::temp_directory_path() / "quorvia-minimal-host"})));

  // Start at launch, on the main thread; the host forwards push callbacks itself.
  QuorviaSDK::initWithAppToken("demo-app-token", std::nullopt, /*swizzling=*/false);
  QuorviaSDK::askUserForPushPermissions();
  platform::mainRunLoop().runFor(platform::seconds(0.2));

  auto& app = platform::Application::sharedApplication();
  for (const auto& settings : app.registeredUserNotificationSettings()) {
    std::printf("settings registered: types %u, %zu categories\n", settings.types,
                settings.categories ? settings.categories->count() : 0);
    if (!settings.categories) continue;
    for (const auto& category : settings.categories->allObjects()) {
      std::printf("  %s:", category.identifier().c_str());
      for (const auto& action :
           category.actionsForContext(platform::UserNotificationActionContext::kDefault)) {
        std::printf(" [%s]", action.title().c_str());
      }
      std::printf("\n");
    }
  }
  return 0;
}
