// The desktop push service: an MQTT v5 client (libmosquitto) on a thread of its
// own, subscribed with QoS 1 on a persistent session to the device's topic, so
// that the broker keeps what is pushed while the app is not running.

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "platform/Log.h"
#include "platform/push/DeviceTokenFile.h"
#include "platform/push/PacketSizeGuard.h"
#include "quorvia/platform/PushService.h"
#include "quorvia/platform/RunLoop.h"

namespace quorvia::platform {
namespace {

constexpr int kKeepAliveSeconds = 60;
// Below the keep-alive, so that an idle client still sends its pings in time;
// the loop is otherwise woken only by the socket or by a stop.
constexpr int kLoopTimeoutMs = 20'000;
constexpr std::chrono::seconds kFirstRetryDelay{1};
constexpr std::chrono::seconds kMaxRetryDelay{30};
// How long the broker keeps the session (and the pushes queued on it) while
// the device is away.
constexpr std::uint32_t kSessionExpirySeconds = 30 * 24 * 3600;
// Room for the fixed header, the topic and the properties around a payload.
constexpr std::uint32_t kPacketOverheadBytes = 64 * 1024;
// Announced to the broker, and enforced on what it sends (PacketSizeGuard).
constexpr std::uint32_t kMaxPacketBytes =
    static_cast<std::uint32_t>(kMaxPushPayloadBytes) + kPacketOverheadBytes;
constexpr const char* kTopicPrefix = "quorvia/devices/";
// Client identifiers of up to 23 characters are the ones every broker accepts.
constexpr std::size_t kClientIdHexDigits = 21;

struct BrokerAddress {
  std::string host;
  int port = 0;
  bool tls = false;
};

std::optional<BrokerAddress> parseBrokerURL(const std::string& url) {
  BrokerAddress address;
  std::string_view rest(url);
  if (rest.starts_with("mqtt://")) {
    rest.remove_prefix(7);
    address.port = 1883;
  } else if (rest.starts_with("mqtts://")) {
    rest.remove_prefix(8);
    address.port = 8883;
    address.tls = true;
  } else {
    return std::nullopt;
  }
  if (rest.ends_with("/")) rest.remove_suffix(1);
  std::string_view port;
  if (rest.starts_with("[")) {  // an IPv6 literal
    const auto close = rest.find(']');
    if (close == std::string_view::npos) return std::nullopt;
    address.host = rest.substr(1, close - 1);
    rest.remove_prefix(close + 1);
    if (!rest.empty() && !rest.starts_with(":")) return std::nullopt;
    if (!rest.empty()) port = rest.substr(1);
  } else {
    const auto colon = rest.find(':');
    address.host = rest.substr(0, colon);
    if (colon != std::string_view::npos) port = rest.substr(colon + 1);
    if (colon != std::string_view::npos && port.empty()) return std::nullopt;
  }
  if (address.host.empty() || address.host.find_first_of("/@?# ") != std::string::npos) {
    return std::nullopt;
  }
  if (!port.empty()) {
    if (port.size() > 5 || port.find_first_not_of("0123456789") != std::string_view::npos) {
      return std::nullopt;
    }
    address.port = std::stoi(std::string(port));
    if (address.port < 1 || address.port > 65535) return std::nullopt;
  }
  return address;
}

Error pushError(int code, const std::string& description) {
  Error error;
  error.domain = kQuorviaPushErrorDomain;
  error.code = code;
  error.userInfo[kNSLocalizedDescriptionKey] = description;
  return error;
}

std::string describeFailure(int rc, int savedErrno) {
  if (rc == MOSQ_ERR_ERRNO) return std::strerror(savedErrno);
  if (rc == MOSQ_ERR_CONN_LOST) return "the broker closed the connection before accepting it";
  return mosquitto_strerror(rc);
}

// What the main queue knows. Only main-queue tasks touch it, so it needs no
// lock, and the handlers it holds are destroyed there.
struct MainSide {
  PushService::Handlers handlers;
  std::optional<Bytes> token;         // set once the broker acknowledged the subscription
  std::optional<Error> finalFailure;  // the service gave up: told to every registration
  bool tokenDelivered = false;
  bool failureReported = false;

  void install(PushService::Handlers replacement) {
    handlers = std::move(replacement);
    tokenDelivered = false;
    failureReported = false;
    deliverToken();
    if (finalFailure) failed(*finalFailure);
  }
  void subscribed(Bytes deviceToken) {
    token = std::move(deviceToken);
    deliverToken();
  }
  void deliverToken() {
    if (!token || tokenDelivered) return;
    tokenDelivered = true;
    if (handlers.didRegister) handlers.didRegister(*token);
  }
  void failed(Error error) {
    if (tokenDelivered || failureReported) return;
    failureReported = true;
    if (handlers.didFailToRegister) handlers.didFailToRegister(std::move(error));
  }
  void received(Value payload) {
    if (handlers.didReceive) handlers.didReceive(std::move(payload));
  }
};

class MqttPushService final : public PushService {
 public:
  explicit MqttPushService(MqttPushOptions options) : options_(std::move(options)) {}

  ~MqttPushService() override {
    {
      std::lock_guard lock(mu_);
      stopping_ = true;
      // Wakes the thread out of mosquitto_loop(): the library writes to its
      // own wake-up pipe when a packet is queued from another thread.
      if (mosq_) mosquitto_disconnect(mosq_);
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
    // The last reference to the handlers goes to the main queue.
    dispatch_async([main = std::move(main_)] {});
  }

  void registerForRemoteNotifications(Handlers handlers) override {
    dispatch_async([main = main_, handlers = std::move(handlers)]() mutable {
      main->install(std::move(handlers));
    });
    std::lock_guard lock(mu_);
    if (started_ || stopping_) return;
    started_ = true;
    thread_ = std::thread([this] { run(); });
  }

 private:
  // Posts `deliver` to the main queue with the main side; the closure holds
  // plain data only, so nothing of the host's is destroyed on this thread.
  template <typename F>
  void post(F deliver) {
    dispatch_async([main = main_, deliver = std::move(deliver)]() mutable { deliver(*main); });
  }

  void reportFailure(int code, const std::string& description, bool final = false) {
    post([error = pushError(code, description), final](MainSide& main) mutable {
      if (final) main.finalFailure = error;
      main.failed(std::move(error));
    });
  }

  bool stopping() {
    std::lock_guard lock(mu_);
    return stopping_;
  }

  void run() {
    pthread_setname_np(pthread_self(), "quorvia-push");
    const std::optional<Bytes> token = loadOrCreateDeviceToken(options_.dataDirectory);
    if (!token) {
      reportFailure(kQuorviaPushErrorUnreachable, "The device has no push token: no random bytes",
                    true);
      return;
    }
    token_ = *token;
    const std::string hex = hexString(token_);
    topic_ = kTopicPrefix + hex;
    const std::optional<BrokerAddress> broker = parseBrokerURL(options_.brokerURL);
    if (!broker) {
      debugLog("QuorviaSDK: push broker URL \"" + options_.brokerURL +
               "\" is not mqtt://host:port or mqtts://host:port; push is off");
      reportFailure(kQuorviaPushErrorBadBrokerURL,
                    "The push broker URL \"" + options_.brokerURL + "\" is not valid", true);
      return;
    }
    static std::once_flag libraryInitialised;
    std::call_once(libraryInitialised, [] { mosquitto_lib_init(); });

    const std::string clientId = "qv" + hex.substr(0, kClientIdHexDigits);
    mosquitto* client = mosquitto_new(clientId.c_str(), /*clean_session=*/false, this);
    if (!client) {
      reportFailure(kQuorviaPushErrorUnreachable, "The push client cannot be created", true);
      return;
    }
    mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_threaded_set(client, true);  // this thread runs the loop; others may wake it
    if (broker->tls) {
      mosquitto_int_option(client, MOSQ_OPT_TLS_USE_OS_CERTS, 1);
      mosquitto_tls_set(client, nullptr, "/etc/ssl/certs", nullptr, nullptr, nullptr);
    }
    mosquitto_connect_v5_callback_set(
        client, [](mosquitto*, void* self, int rc, int, const mosquitto_property*) {
          static_cast<MqttPushService*>(self)->onConnect(rc);
        });
    mosquitto_subscribe_v5_callback_set(client, [](mosquitto*, void* self, int, int count,
                                                   const int* granted, const mosquitto_property*) {
      static_cast<MqttPushService*>(self)->onSubscribe(count, granted);
    });
    mosquitto_message_v5_callback_set(
        client,
        [](mosquitto*, void* self, const mosquitto_message* message, const mosquitto_property*) {
          static_cast<MqttPushService*>(self)->onMessage(*message);
        });
    mosquitto_property* properties = nullptr;
    mosquitto_property_add_int32(&properties, MQTT_PROP_SESSION_EXPIRY_INTERVAL,
                                 kSessionExpirySeconds);
    mosquitto_property_add_int32(&properties, MQTT_PROP_MAXIMUM_PACKET_SIZE, kMaxPacketBytes);
    client_ = client;
    {
      std::lock_guard lock(mu_);
      mosq_ = client;
    }
    connectLoop(client, *broker, properties);
    {
      std::lock_guard lock(mu_);
      mosq_ = nullptr;
    }
    mosquitto_property_free_all(&properties);
    mosquitto_destroy(client);
  }

  // Connects, runs the connection until it ends, and tries again with backoff
  // until the service stops.
  void connectLoop(mosquitto* client, const BrokerAddress& broker,
                   const mosquitto_property* properties) {
    auto delay = kFirstRetryDelay;
    bool failing = false;
    for (;;) {
      int rc = MOSQ_ERR_SUCCESS;
      int savedErrno = 0;
      accepted_ = false;
      refusal_.clear();
      std::unique_ptr<PacketSizeGuard> guard;
      {
        // Held across the connect so that a stop either comes before it or
        // finds a socket to wake.
        std::lock_guard lock(mu_);
        if (stopping_) return;
        rc = mosquitto_connect_bind_v5(client, broker.host.c_str(), broker.port, kKeepAliveSeconds,
                                       nullptr, properties);
        savedErrno = errno;
        // libmosquitto reads a packet whole whatever its size. Over TLS the
        // socket carries ciphertext, whose framing the guard cannot see; a
        // TLS broker is one whose certificate the system trusts.
        if (rc == MOSQ_ERR_SUCCESS && !broker.tls) {
          guard = PacketSizeGuard::interpose(mosquitto_socket(client), kMaxPacketBytes);
          // Never unguarded: without descriptors for the guard the
          // connection ends at once and is tried again later.
          if (!guard) ::shutdown(mosquitto_socket(client), SHUT_RDWR);
        }
      }
      while (rc == MOSQ_ERR_SUCCESS && !stopping()) {
        rc = mosquitto_loop(client, kLoopTimeoutMs, 1);
        savedErrno = errno;
      }
      if (stopping()) return;
      const std::string guardRefusal = guard ? guard->refusal() : std::string();
      guard.reset();
      const std::string failure =
          guardRefusal.empty() ? describeFailure(rc, savedErrno) : guardRefusal;
      auto wait = delay;
      if (accepted_) {
        debugLog("QuorviaSDK: push broker connection lost (" + failure + "); reconnecting");
        // A connection that keeps dropping at once (another process with the
        // same token takes the session over) backs off like a failure does.
        if (std::chrono::steady_clock::now() - acceptedAt_ >= kMaxRetryDelay) {
          wait = kFirstRetryDelay;
        }
        failing = false;
      } else {
        const bool refused = !refusal_.empty();
        const std::string why = refused ? refusal_ : failure;
        if (!failing) {
          debugLog("QuorviaSDK: push broker " + options_.brokerURL + " " +
                   (refused ? "refused the device: " : "cannot be reached: ") + why +
                   "; retrying with backoff");
        }
        failing = true;
        reportFailure(refused ? kQuorviaPushErrorRefused : kQuorviaPushErrorUnreachable,
                      "The push broker " + options_.brokerURL +
                          (refused ? " refused the device: " : " cannot be reached: ") + why);
      }
      delay = std::min(wait * 2, kMaxRetryDelay);
      std::unique_lock lock(mu_);
      if (wake_.wait_for(lock, wait, [this] { return stopping_; })) return;
    }
  }

  // The callbacks below run on the service thread, inside mosquitto_loop().
  void onConnect(int rc) {
    if (rc != 0) {
      refusal_ = mosquitto_reason_string(rc);
      return;
    }
    accepted_ = true;
    acceptedAt_ = std::chrono::steady_clock::now();
    // Asked again on every connection: a broker that lost its state must not
    // leave the device deaf. Retained messages come only with a new
    // subscription, so a reconnect does not repeat one.
    mosquitto_subscribe_v5(client_, nullptr, topic_.c_str(), 1, MQTT_SUB_OPT_SEND_RETAIN_NEW,
                           nullptr);
  }

  void onSubscribe(int count, const int* granted) {
    if (count < 1 || granted[0] > 2) {
      accepted_ = false;
      refusal_ = "the subscription to " + topic_ + " was refused (" +
                 (count < 1 ? std::string("no answer") : mosquitto_reason_string(granted[0])) + ")";
      mosquitto_disconnect(client_);
      return;
    }
    post([token = token_](MainSide& main) mutable { main.subscribed(std::move(token)); });
  }

  void onMessage(const mosquitto_message& message) {
    const auto size = static_cast<std::size_t>(std::max(message.payloadlen, 0));
    if (!message.topic || topic_ != message.topic) {
      debugLog("QuorviaSDK: push dropped: it came on a topic other than the device's");
      return;
    }
    if (size > kMaxPushPayloadBytes) {
      debugLog("QuorviaSDK: push dropped: its payload of " + std::to_string(size) +
               " bytes is larger than the limit of " + std::to_string(kMaxPushPayloadBytes));
      return;
    }
    std::optional<Value> payload =
        parseJson(std::string_view(static_cast<const char*>(message.payload), size));
    if (!payload || !payload->is_object()) {
      debugLog("QuorviaSDK: push dropped: its payload is not a JSON object (" +
               std::to_string(size) + " bytes)");
      return;
    }
    post([payload = std::move(*payload)](MainSide& main) mutable {
      main.received(std::move(payload));
    });
  }

  const MqttPushOptions options_;
  std::shared_ptr<MainSide> main_ = std::make_shared<MainSide>();

  std::mutex mu_;
  std::condition_variable wake_;
  bool started_ = false;       // guarded by mu_
  bool stopping_ = false;      // guarded by mu_
  mosquitto* mosq_ = nullptr;  // guarded by mu_; for waking the thread
  std::thread thread_;

  // Service thread only (the callbacks run there too).
  mosquitto* client_ = nullptr;
  Bytes token_;
  std::string topic_;
  bool accepted_ = false;  // the broker accepted the current connection
  std::chrono::steady_clock::time_point acceptedAt_;
  std::string refusal_;  // why it refused, when it did
};

}  // namespace

std::shared_ptr<PushService> makeMqttPushService(MqttPushOptions options) {
  return std::make_shared<MqttPushService>(std::move(options));
}

}  // namespace quorvia::platform
