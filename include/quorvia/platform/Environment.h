#pragma once
/// \file
/// The platform seam. A host that is happy with the real desktop does nothing
/// with this header: the SDK uses Environment::Default(). A host that wants its
/// own log sink, data directory or application identifier installs an
/// environment once, before its first SDK call:
///
///     platform::installEnvironment(platform::makeDesktopEnvironment({.appIdentifier = "my-app"}));
///
/// Every replaceable service of the operating system sits behind this one
/// object: the main queue and the clocks, the log sink, URL loading, the
/// keychain and user-defaults stores, the push service, the notification
/// presenter, the accessibility bus, device information and the data
/// directory. Tests build their own
/// and wrap a single service (EnvironmentWrapper) to inject a fault.

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "quorvia/export.h"
#include "quorvia/platform/Clock.h"
#include "quorvia/platform/NotificationSettings.h"
#include "quorvia/platform/RunLoop.h"

namespace quorvia::platform {

class AccessibilityBus;
class KeychainStore;
class NotificationPresenter;
class PushService;
class URLTransport;
class UserDefaults;

/// What the SDK knows about the device it runs on.
struct DeviceInfo {
  /// The system release the SDK checks at start-up. The desktop reports one
  /// the SDK supports: a Linux distribution's own version number means
  /// nothing to the SDK's release gate.
  std::string systemVersion = "17.0";
  /// Names the app's data directory and its log lines.
  std::string appIdentifier;
  /// The user's "reduce transparency" accessibility switch.
  bool reduceTransparency = false;
};

/// The services of the platform. Implementations must be safe to call from
/// any thread; each accessor returns the same service every time it is
/// called (services are made on first use and live as long as the
/// environment).
class QUORVIA_EXPORT Environment {
 public:
  Environment() = default;
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;
  virtual ~Environment();

  /// The real desktop: a real-clock main queue, the system clock, log lines on
  /// stderr, libcurl, SQLite and files under $XDG_DATA_HOME/quorvia/<program
  /// name>, push through the MQTT broker of QUORVIA_PUSH_BROKER, notifications
  /// through the session bus. Made on first use and never destroyed.
  static Environment* Default();

  /// The main queue, on which every SDK callback runs.
  virtual RunLoop& mainRunLoop() = 0;
  /// Wall-clock time (dates, cache expiry).
  virtual SystemTime now() = 0;
  /// Receives one log line, without a timestamp. Called one line at a time.
  virtual void log(std::string_view message) = 0;
  /// Sends HTTP requests off the main thread.
  virtual std::shared_ptr<URLTransport> urlTransport() = 0;
  /// Keeps the keychain's generic-password items.
  virtual std::shared_ptr<KeychainStore> keychainStore() = 0;
  /// The standard user defaults.
  virtual std::shared_ptr<UserDefaults> userDefaults() = 0;
  /// Delivers the device token and pushes; null when the platform has none.
  virtual std::shared_ptr<PushService> pushService() = 0;
  /// Shows notifications with answer buttons; null when the platform has none.
  virtual std::shared_ptr<NotificationPresenter> notificationPresenter() = 0;
  /// Publishes the banner to screen readers; null when the platform has none
  /// (the default). Internal: hosts leave it to the desktop environment.
  virtual std::shared_ptr<AccessibilityBus> accessibilityBus();
  /// The device's release, identifier and accessibility settings.
  virtual DeviceInfo deviceInfo() = 0;
  /// Where the app keeps its files (created 0700 by the first store that writes).
  virtual std::filesystem::path dataDirectory() = 0;
  /// The text under `key` in the main bundle's strings table `table`, or
  /// nullopt. The desktop has no strings tables.
  virtual std::optional<std::string> localizedString(std::string_view table, std::string_view key);
  /// A development override of the poll service's origin ("http://host:port"),
  /// or nullopt for QUORVIA_SERVICE_BASE_URL from the process environment,
  /// else the origin the library was built with. Read once, at the SDK's
  /// first service call.
  virtual std::optional<std::string> serviceBaseURL();
  /// The user's answer when the app registers notification settings (asks
  /// for permission): the settings granted, or nullopt while nobody answered
  /// (then the host reports the answer with
  /// Application::setCurrentUserNotificationSettings). The desktop has no
  /// such prompt: what an app with notifications on asks for is granted,
  /// and the desktop's notification server is where the user says no.
  virtual std::optional<NotificationSettings> answerNotificationPermission(
      const NotificationSettings& asked);
};

/// An environment that forwards every call to another: subclass it and
/// override only the service you replace.
class QUORVIA_EXPORT EnvironmentWrapper : public Environment {
 public:
  /// `target` must outlive the wrapper.
  explicit EnvironmentWrapper(std::shared_ptr<Environment> target) : target_(std::move(target)) {}

  Environment& target() const { return *target_; }

  RunLoop& mainRunLoop() override { return target_->mainRunLoop(); }
  SystemTime now() override { return target_->now(); }
  void log(std::string_view message) override { target_->log(message); }
  std::shared_ptr<URLTransport> urlTransport() override { return target_->urlTransport(); }
  std::shared_ptr<KeychainStore> keychainStore() override { return target_->keychainStore(); }
  std::shared_ptr<UserDefaults> userDefaults() override { return target_->userDefaults(); }
  std::shared_ptr<PushService> pushService() override { return target_->pushService(); }
  std::shared_ptr<NotificationPresenter> notificationPresenter() override {
    return target_->notificationPresenter();
  }
  std::shared_ptr<AccessibilityBus> accessibilityBus() override {
    return target_->accessibilityBus();
  }
  DeviceInfo deviceInfo() override { return target_->deviceInfo(); }
  std::filesystem::path dataDirectory() override { return target_->dataDirectory(); }
  std::optional<std::string> localizedString(std::string_view table,
                                             std::string_view key) override {
    return target_->localizedString(table, key);
  }
  std::optional<std::string> serviceBaseURL() override { return target_->serviceBaseURL(); }
  std::optional<NotificationSettings> answerNotificationPermission(
      const NotificationSettings& asked) override {
    return target_->answerNotificationPermission(asked);
  }

 private:
  std::shared_ptr<Environment> target_;
};

/// How a desktop environment differs from the default one.
struct DesktopEnvironmentOptions {
  /// Default: the program's name.
  std::string appIdentifier;
  /// Default: $XDG_DATA_HOME/quorvia/<appIdentifier> (XDG_DATA_HOME defaults
  /// to ~/.local/share).
  std::filesystem::path dataDirectory;
  /// kVirtual gives a main queue whose time moves only when told to.
  RunLoop::Clock clock = RunLoop::Clock::kReal;
  /// Whether the MQTT push service is used (off: no push service).
  bool push = true;
  /// Whether notifications are shown through the freedesktop Notifications
  /// service on the session bus (off: no notification presenter).
  bool notifications = true;
  /// Whether a shown banner is published on the desktop's accessibility bus
  /// (AT-SPI), where screen readers find it, as an application of its own.
  /// It is joined at the first banner; without a bus, one log line says so.
  bool accessibility = true;
  /// For development: the poll service's origin, e.g. "http://127.0.0.1:8765".
  /// Empty: $QUORVIA_SERVICE_BASE_URL, else the origin the library was built
  /// with. Production builds set it at build time and leave this empty.
  std::string serviceBaseURL;
  /// The MQTT broker pushes come through, "mqtt://host:port" or
  /// "mqtts://host:port". Empty: $QUORVIA_PUSH_BROKER, else
  /// "mqtt://127.0.0.1:1883".
  std::string pushBroker;
  /// Where keychain items are kept, the service's access token among them.
  /// kAutomatic: in the desktop's keyring, the Secret Service on the session
  /// bus (GNOME Keyring, KWallet, KeePassXC), when one answers there, else in
  /// the file "keychain.sqlite" of the data directory; one log line says
  /// which, and items an earlier release kept in that file are moved into the
  /// keyring once and the file removed. kSecretService: the keyring always;
  /// while none answers, the token can be neither read nor kept. kFile: the
  /// file always. The keyring never prompts: a locked keyring, or one that
  /// does not answer a read within 10 ms (a write or connecting: 500 ms),
  /// fails the call.
  enum class KeychainStorage { kAutomatic, kSecretService, kFile };
  KeychainStorage keychainStorage = KeychainStorage::kAutomatic;
};

/// The real desktop services, configured by `options`.
QUORVIA_EXPORT std::shared_ptr<Environment> makeDesktopEnvironment(
    DesktopEnvironmentOptions options = {});

/// Makes `environment` the one every SDK call uses. Install it once, on the
/// main thread, before the first SDK call; a replaced environment is kept
/// alive until the process ends, since threads may still reach it.
QUORVIA_EXPORT void installEnvironment(std::shared_ptr<Environment> environment);

/// The installed environment, or Default(). Any thread.
QUORVIA_EXPORT Environment& environment();

}  // namespace quorvia::platform
