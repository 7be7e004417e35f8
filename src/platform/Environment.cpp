#include "quorvia/platform/Environment.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/AccessibilityBus.h"
#include "platform/KeychainStore.h"
#include "quorvia/platform/NotificationSettings.h"
#include "quorvia/platform/NotificationPresenter.h"
#include "quorvia/platform/PushService.h"
#include "platform/URLSession.h"
#include "platform/UserDefaults.h"

extern "C" char* program_invocation_short_name;  // glibc

namespace quorvia::platform {
namespace {

std::filesystem::path xdgDataDirectory(const std::string& appIdentifier) {
  std::filesystem::path base;
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg) {
    base = xdg;
  } else if (const char* home = std::getenv("HOME"); home && *home) {
    base = std::filesystem::path(home) / ".local" / "share";
  } else {
    base = std::filesystem::temp_directory_path();
  }
  return base / "quorvia" / appIdentifier;
}

// NSLog's line: "YYYY-MM-DD hh:mm:ss.mmm process[pid:tid] message".
void writeToStderr(std::string_view message) {
  const auto now = std::chrono::system_clock::now();
  const std::time_t secs = std::chrono::system_clock::to_time_t(now);
  const auto ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()) % 1000;
  std::tm local{};
  localtime_r(&secs, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  std::fprintf(stderr, "%s.%03d %s[%d:%ld] %.*s\n", stamp, static_cast<int>(ms.count()),
               program_invocation_short_name, static_cast<int>(getpid()),
               static_cast<long>(syscall(SYS_gettid)), static_cast<int>(message.size()),
               message.data());
}

// Made on first use: an SDK that never sends a request starts no transport
// thread, and one that never reads the keychain opens no database.
template <typename T>
class Lazy {
 public:
  template <typename Make>
  std::shared_ptr<T> get(Make&& make) {
    std::lock_guard lock(mu_);
    if (!value_) value_ = make();
    return value_;
  }

 private:
  std::mutex mu_;
  std::shared_ptr<T> value_;
};

class DesktopEnvironment final : public Environment {
 public:
  explicit DesktopEnvironment(DesktopEnvironmentOptions options)
      : options_(std::move(options)), loop_(options_.clock) {
    if (options_.appIdentifier.empty()) options_.appIdentifier = program_invocation_short_name;
    if (options_.dataDirectory.empty()) {
      options_.dataDirectory = xdgDataDirectory(options_.appIdentifier);
    }
  }

  RunLoop& mainRunLoop() override { return loop_; }
  SystemTime now() override { return std::chrono::system_clock::now(); }
  void log(std::string_view message) override { writeToStderr(message); }
  std::shared_ptr<URLTransport> urlTransport() override {
    return transport_.get([] { return makeCurlTransport(); });
  }
  std::shared_ptr<KeychainStore> keychainStore() override {
    return keychain_.get([this] {
      return makeDesktopKeychainStore(options_.keychainStorage, options_.dataDirectory,
                                      options_.appIdentifier);
    });
  }
  std::shared_ptr<UserDefaults> userDefaults() override {
    return defaults_.get(
        [this] { return makeFileUserDefaults(options_.dataDirectory / kUserDefaultsFileName); });
  }
  std::shared_ptr<PushService> pushService() override {
    if (!options_.push) return nullptr;
    return push_.get(
        [this] {
          return makeMqttPushService(
              {options_.pushBroker.empty() ? defaultPushBrokerURL() : options_.pushBroker,
               options_.dataDirectory});
        });
  }
  std::shared_ptr<NotificationPresenter> notificationPresenter() override {
    if (!options_.notifications) return nullptr;
    return presenter_.get([] { return makeFreedesktopNotificationPresenter(); });
  }
  std::shared_ptr<AccessibilityBus> accessibilityBus() override {
    if (!options_.accessibility) return nullptr;
    return accessibility_.get([this] { return makeAtspiAccessibilityBus(options_.appIdentifier); });
  }
  DeviceInfo deviceInfo() override {
    DeviceInfo info;
    info.appIdentifier = options_.appIdentifier;
    return info;
  }
  std::filesystem::path dataDirectory() override { return options_.dataDirectory; }
  std::optional<std::string> serviceBaseURL() override {
    if (options_.serviceBaseURL.empty()) return std::nullopt;
    return options_.serviceBaseURL;
  }
  std::optional<NotificationSettings> answerNotificationPermission(
      const NotificationSettings& asked) override {
    if (!options_.notifications) return std::nullopt;
    return asked;
  }

 private:
  DesktopEnvironmentOptions options_;
  RunLoop loop_;
  Lazy<URLTransport> transport_;
  Lazy<KeychainStore> keychain_;
  Lazy<UserDefaults> defaults_;
  Lazy<PushService> push_;
  Lazy<NotificationPresenter> presenter_;
  Lazy<AccessibilityBus> accessibility_;
};

struct Installed {
  std::mutex mu;
  std::vector<std::shared_ptr<Environment>> kept;  // every environment ever installed
  std::atomic<Environment*> current{nullptr};
};

Installed& installed() {
  // Never destroyed: threads and exit handlers may log while the process ends.
  static auto* slot = new Installed;
  return *slot;
}

}  // namespace

Environment::~Environment() = default;

std::optional<std::string> Environment::localizedString(std::string_view, std::string_view) {
  return std::nullopt;
}

std::optional<std::string> Environment::serviceBaseURL() { return std::nullopt; }

std::shared_ptr<AccessibilityBus> Environment::accessibilityBus() { return nullptr; }

std::optional<NotificationSettings> Environment::answerNotificationPermission(
    const NotificationSettings&) {
  return std::nullopt;
}

Environment* Environment::Default() {
  static const std::shared_ptr<Environment>* const desktop =
      new std::shared_ptr<Environment>(makeDesktopEnvironment());
  return desktop->get();
}

std::shared_ptr<Environment> makeDesktopEnvironment(DesktopEnvironmentOptions options) {
  return std::make_shared<DesktopEnvironment>(std::move(options));
}

void installEnvironment(std::shared_ptr<Environment> environment) {
  if (!environment) return;
  auto& slot = installed();
  std::lock_guard lock(slot.mu);
  slot.current.store(environment.get(), std::memory_order_release);
  slot.kept.push_back(std::move(environment));
}

Environment& environment() {
  Environment* current = installed().current.load(std::memory_order_acquire);
  return current ? *current : *Environment::Default();
}

}  // namespace quorvia::platform
