#pragma once
/// \file
/// The platform's push service (the desktop's stand-in for the mobile push
/// service): it gives the device a token and delivers every push addressed to
/// that token. The desktop service is an MQTT client; see docs/push.md.

#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "quorvia/export.h"
#include "quorvia/platform/Error.h"
#include "quorvia/platform/Value.h"

namespace quorvia::platform {

/// Error domain of the push service's registration failures.
inline constexpr const char* kQuorviaPushErrorDomain = "QuorviaPushErrorDomain";
/// The broker could not be reached (name, TCP, TLS or a lost handshake).
inline constexpr int kQuorviaPushErrorUnreachable = 1;
/// The broker answered and refused the connection or the subscription.
inline constexpr int kQuorviaPushErrorRefused = 2;
/// The broker URL is not "mqtt://host:port" or "mqtts://host:port".
inline constexpr int kQuorviaPushErrorBadBrokerURL = 3;

/// The largest push payload the service accepts, in bytes (4 MiB). A larger
/// one is logged and dropped.
inline constexpr std::size_t kMaxPushPayloadBytes = 4 * 1024 * 1024;

/// The platform's push service: delivers the device token and every push payload.
class QUORVIA_EXPORT PushService {
 public:
  /// What the service reports. Every handler runs on the main queue (posted
  /// with dispatch_async), never on the service's thread, and every handler
  /// (with what it captured) is destroyed there too.
  struct Handlers {
    /// The device token, after the broker acknowledged the subscription to
    /// the device's topic: once per registerForRemoteNotifications() call.
    std::function<void(Bytes deviceToken)> didRegister;
    /// The broker is unreachable or refused the device: at most once per
    /// registerForRemoteNotifications() call, and only before that call's
    /// token was delivered. The service keeps retrying with backoff and
    /// delivers the token when it succeeds.
    std::function<void(Error error)> didFailToRegister;
    /// Each push whose payload is a JSON object, in the order the broker
    /// delivers them. Anything else is logged and dropped.
    std::function<void(Value payload)> didReceive;
  };

  PushService() = default;
  PushService(const PushService&) = delete;
  PushService& operator=(const PushService&) = delete;
  /// Stops the service's thread (waiting for a connection attempt in
  /// progress); no handler runs after the main queue has run what was already
  /// posted.
  virtual ~PushService();

  /// Starts connecting on the service's own thread (first call) and reports
  /// through `handlers`; a later call replaces the handlers and reports the
  /// token again once known. Any thread; never blocks on the network.
  virtual void registerForRemoteNotifications(Handlers handlers) = 0;
};

/// Where the MQTT push service connects and keeps its device token.
struct MqttPushOptions {
  /// "mqtt://host:port" or "mqtts://host:port" (TLS, verified against the
  /// system's CA store). The port defaults to 1883 (mqtt) or 8883 (mqtts).
  std::string brokerURL;
  /// The app's data directory: the device token lives in a file there.
  std::filesystem::path dataDirectory;
};

/// The MQTT push service. brokerURL "mqtt://host:port" or "mqtts://host:port"
/// (system CA store). Nothing is read, written or connected before the first
/// registerForRemoteNotifications(). Any thread.
QUORVIA_EXPORT std::shared_ptr<PushService> makeMqttPushService(MqttPushOptions options);

/// QUORVIA_PUSH_BROKER from the environment, else "mqtt://127.0.0.1:1883".
QUORVIA_EXPORT std::string defaultPushBrokerURL();

}  // namespace quorvia::platform
