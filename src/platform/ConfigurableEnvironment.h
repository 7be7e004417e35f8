#pragma once
// Internal: an environment whose services are replaced one at a time, for
// tests, benchmarks, fuzzers and the simulator. Everything not replaced is the
// desktop's, kept in the given data directory.

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "quorvia/platform/Environment.h"
#include "quorvia/platform/NotificationSettings.h"
#include "quorvia/platform/Value.h"

namespace quorvia::platform {

class ConfigurableEnvironment final : public EnvironmentWrapper {
 public:
  /// Installs a fresh environment in `dataDirectory` with a main queue on
  /// `clock`, no push service, keychain items where `keychain` says (by
  /// default the file, so that nothing reaches a real keyring unasked), and
  /// returns it for further changes.
  static std::shared_ptr<ConfigurableEnvironment> install(
      std::filesystem::path dataDirectory, RunLoop::Clock clock,
      std::string appIdentifier = "quorvia",
      DesktopEnvironmentOptions::KeychainStorage keychain =
          DesktopEnvironmentOptions::KeychainStorage::kFile) {
    auto env = std::make_shared<ConfigurableEnvironment>(
        makeDesktopEnvironment({.appIdentifier = std::move(appIdentifier),
                                .dataDirectory = std::move(dataDirectory),
                                .clock = clock,
                                .push = false,
                                .keychainStorage = keychain}));
    installEnvironment(env);
    return env;
  }

  explicit ConfigurableEnvironment(std::shared_ptr<Environment> desktop)
      : EnvironmentWrapper(std::move(desktop)) {}

  // Each setter replaces one service; an empty value restores the desktop's.
  void setWallClock(std::function<SystemTime()> now) { set(&Slots::now, std::move(now)); }
  void setLogSink(std::function<void(std::string_view)> sink) { set(&Slots::log, std::move(sink)); }
  void setURLTransport(std::shared_ptr<URLTransport> t) { set(&Slots::transport, std::move(t)); }
  void setKeychainStore(std::shared_ptr<KeychainStore> s) { set(&Slots::keychain, std::move(s)); }
  void setUserDefaults(std::shared_ptr<UserDefaults> d) { set(&Slots::defaults, std::move(d)); }
  void setPushService(std::shared_ptr<PushService> p) { set(&Slots::push, std::move(p)); }
  void setNotificationPresenter(std::shared_ptr<NotificationPresenter> p) {
    set(&Slots::presenter, std::move(p));
  }
  /// Null (the default) publishes nothing: tests never reach a real bus.
  void setAccessibilityBus(std::shared_ptr<AccessibilityBus> bus) {
    set(&Slots::accessibility, std::move(bus));
  }
  void setSystemVersion(std::string version) { set(&Slots::systemVersion, std::move(version)); }
  void setReduceTransparency(bool reduce) { set(&Slots::reduceTransparency, reduce); }
  /// Read once per process, at the first service call: set it before.
  void setServiceBaseURL(std::string url) { set(&Slots::serviceBaseURL, std::move(url)); }
  void setLocalizedStringTable(const std::string& table, Value strings) {
    std::lock_guard lock(mu_);
    slots_.tables[table] = std::move(strings);
  }

  SystemTime now() override {
    auto clock = get(&Slots::now);
    return clock ? clock() : target().now();
  }
  void log(std::string_view message) override {
    auto sink = get(&Slots::log);
    sink ? sink(message) : target().log(message);
  }
  std::shared_ptr<URLTransport> urlTransport() override {
    auto t = get(&Slots::transport);
    return t ? t : target().urlTransport();
  }
  std::shared_ptr<KeychainStore> keychainStore() override {
    auto s = get(&Slots::keychain);
    return s ? s : target().keychainStore();
  }
  std::shared_ptr<UserDefaults> userDefaults() override {
    auto d = get(&Slots::defaults);
    return d ? d : target().userDefaults();
  }
  std::shared_ptr<PushService> pushService() override { return get(&Slots::push); }
  std::shared_ptr<NotificationPresenter> notificationPresenter() override {
    return get(&Slots::presenter);
  }
  std::shared_ptr<AccessibilityBus> accessibilityBus() override {
    return get(&Slots::accessibility);
  }
  DeviceInfo deviceInfo() override {
    DeviceInfo info = target().deviceInfo();
    std::lock_guard lock(mu_);
    if (!slots_.systemVersion.empty()) info.systemVersion = slots_.systemVersion;
    info.reduceTransparency = slots_.reduceTransparency;
    return info;
  }
  /// Tests answer for the user themselves (setCurrentUserNotificationSettings).
  std::optional<NotificationSettings> answerNotificationPermission(
      const NotificationSettings&) override {
    return std::nullopt;
  }
  std::optional<std::string> serviceBaseURL() override {
    auto url = get(&Slots::serviceBaseURL);
    if (url.empty()) return target().serviceBaseURL();
    return url;
  }
  std::optional<std::string> localizedString(std::string_view table,
                                             std::string_view key) override {
    std::lock_guard lock(mu_);
    const auto found = slots_.tables.find(table);
    if (found == slots_.tables.end()) return std::nullopt;
    const Value* text = valueForKey(found->second, key);
    if (!text || !text->is_string()) return std::nullopt;
    return text->get<std::string>();
  }

 private:
  struct Slots {
    std::function<SystemTime()> now;
    std::function<void(std::string_view)> log;
    std::shared_ptr<URLTransport> transport;
    std::shared_ptr<KeychainStore> keychain;
    std::shared_ptr<UserDefaults> defaults;
    std::shared_ptr<PushService> push;
    std::shared_ptr<NotificationPresenter> presenter;
    std::shared_ptr<AccessibilityBus> accessibility;
    std::string systemVersion;
    std::string serviceBaseURL;
    bool reduceTransparency = false;
    std::map<std::string, Value, std::less<>> tables;
  };

  template <typename T>
  void set(T Slots::*slot, T value) {
    std::lock_guard lock(mu_);
    slots_.*slot = std::move(value);
  }
  template <typename T>
  T get(T Slots::*slot) {
    std::lock_guard lock(mu_);
    return slots_.*slot;
  }

  std::mutex mu_;
  Slots slots_;
};

}  // namespace quorvia::platform
