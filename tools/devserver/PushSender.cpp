#include "PushSender.h"

#include <mosquitto.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <random>

namespace quorvia::devserver {

namespace {

constexpr int kKeepAliveSeconds = 30;
constexpr int kQos = 1;

// libmosquitto's global state is set up once per process and never torn down: other senders
// may still run while one is destroyed.
void initialiseLibrary() {
  static const int initialised = mosquitto_lib_init();
  (void)initialised;
}

std::string clientId() {
  std::random_device random;
  char id[48];
  std::snprintf(id, sizeof id, "quorvia-devserver-%08x%08x", random(), random());
  return id;
}

}  // namespace

std::optional<BrokerAddress> BrokerAddress::parse(const std::string& url) {
  BrokerAddress address;
  std::string rest;
  if (url.starts_with("mqtt://")) {
    rest = url.substr(7);
  } else if (url.starts_with("mqtts://")) {
    rest = url.substr(8);
    address.tls = true;
    address.port = 8883;
  } else {
    return std::nullopt;
  }
  if (!rest.empty() && rest.back() == '/') rest.pop_back();
  size_t colon = rest.rfind(':');
  if (colon != std::string::npos && rest.find(']', colon) == std::string::npos) {
    std::string port = rest.substr(colon + 1);
    if (port.empty() || port.size() > 5 ||
        !std::all_of(port.begin(), port.end(), [](unsigned char c) { return std::isdigit(c); })) {
      return std::nullopt;
    }
    address.port = std::stoi(port);
    rest.resize(colon);
  }
  if (rest.size() > 2 && rest.front() == '[' && rest.back() == ']') {
    rest = rest.substr(1, rest.size() - 2);
  }
  if (rest.empty() || address.port <= 0 || address.port > 65535 ||
      rest.find_first_of("/@?#") != std::string::npos) {
    return std::nullopt;
  }
  address.host = rest;
  return address;
}

std::string BrokerAddress::url() const {
  std::string name = host.find(':') != std::string::npos ? "[" + host + "]" : host;
  return (tls ? "mqtts://" : "mqtt://") + name + ":" + std::to_string(port);
}

std::optional<std::string> deviceTopic(const std::string& pushToken) {
  if (pushToken.empty()) return std::nullopt;
  std::string hex;
  hex.reserve(pushToken.size());
  for (unsigned char c : pushToken) {
    if (!std::isxdigit(c)) return std::nullopt;
    hex.push_back(static_cast<char>(std::tolower(c)));
  }
  return "quorvia/devices/" + hex;
}

PushSender::PushSender(BrokerAddress broker, std::chrono::milliseconds timeout)
    : broker_(std::move(broker)), timeout_(timeout) {
  initialiseLibrary();
}

PushSender::~PushSender() {
  std::lock_guard connectLock(connectMutex_);
  if (mosq_ == nullptr) return;
  mosquitto_disconnect(mosq_);
  if (loopStarted_) mosquitto_loop_stop(mosq_, true);
  mosquitto_destroy(mosq_);
}

std::string PushSender::connect() {
  std::lock_guard connectLock(connectMutex_);
  {
    std::lock_guard lock(mutex_);
    if (link_ == Link::kUp) return {};
  }
  if (mosq_ == nullptr) {
    mosq_ = mosquitto_new(clientId().c_str(), true, this);
    if (mosq_ == nullptr) return "cannot create an MQTT client";
    // Many messages in flight at once: one push often goes to thousands of devices.
    mosquitto_max_inflight_messages_set(mosq_, 1000);
    mosquitto_connect_callback_set(mosq_, [](mosquitto*, void* self, int rc) {
      static_cast<PushSender*>(self)->onConnect(rc);
    });
    mosquitto_disconnect_callback_set(mosq_, [](mosquitto*, void* self, int rc) {
      static_cast<PushSender*>(self)->onDisconnect(rc);
    });
    mosquitto_publish_callback_set(mosq_, [](mosquitto*, void* self, int mid) {
      static_cast<PushSender*>(self)->onPublish(mid);
    });
    if (broker_.tls) {
      int rc = mosquitto_tls_set(mosq_, nullptr, "/etc/ssl/certs", nullptr, nullptr, nullptr);
      if (rc != MOSQ_ERR_SUCCESS) {
        return std::string("cannot set up TLS: ") + mosquitto_strerror(rc);
      }
    }
  }
  // The loop thread's own reconnection would retry forever in the background; the next push
  // reconnects instead, so a broker that is down costs one bounded wait per push.
  if (loopStarted_) {
    mosquitto_disconnect(mosq_);
    mosquitto_loop_stop(mosq_, true);
    loopStarted_ = false;
  }
  {
    std::lock_guard lock(mutex_);
    link_ = Link::kConnecting;
    connectResult_ = 0;
  }
  int rc = mosquitto_connect_async(mosq_, broker_.host.c_str(), broker_.port, kKeepAliveSeconds);
  if (rc != MOSQ_ERR_SUCCESS) {
    std::lock_guard lock(mutex_);
    link_ = Link::kDown;
    return "cannot reach the broker at " + broker_.url() + ": " +
           (rc == MOSQ_ERR_ERRNO ? std::string(std::strerror(errno)) : mosquitto_strerror(rc));
  }
  rc = mosquitto_loop_start(mosq_);
  if (rc != MOSQ_ERR_SUCCESS)
    return std::string("cannot start the MQTT client: ") + mosquitto_strerror(rc);
  loopStarted_ = true;
  std::unique_lock lock(mutex_);
  if (!changed_.wait_for(lock, timeout_, [&] { return link_ != Link::kConnecting; })) {
    link_ = Link::kDown;
    return "the broker at " + broker_.url() + " did not accept the connection in time";
  }
  if (link_ != Link::kUp) {
    if (connectResult_ == 0) return "cannot reach the broker at " + broker_.url();
    return "the broker at " + broker_.url() +
           " refused the connection: " + mosquitto_connack_string(connectResult_);
  }
  return {};
}

void PushSender::onConnect(int rc) {
  {
    std::lock_guard lock(mutex_);
    connectResult_ = rc;
    link_ = rc == 0 ? Link::kUp : Link::kDown;
  }
  changed_.notify_all();
}

void PushSender::onDisconnect(int) {
  {
    std::lock_guard lock(mutex_);
    link_ = Link::kDown;
    ++generation_;
  }
  changed_.notify_all();
}

void PushSender::onPublish(int mid) {
  {
    std::lock_guard lock(mutex_);
    auto it = inFlight_.find(mid);
    if (it == inFlight_.end()) {
      if (abandoned_.erase(mid) == 0) earlyAcks_.insert(mid);
      return;
    }
    ++it->second->acknowledged;
    --it->second->pending;
    inFlight_.erase(it);
  }
  changed_.notify_all();
}

PushOutcome PushSender::publish(const std::vector<std::string>& pushTokens,
                                const std::string& payload) {
  PushOutcome outcome;
  std::vector<std::string> topics;
  for (const std::string& token : pushTokens) {
    if (std::optional<std::string> topic = deviceTopic(token)) topics.push_back(*topic);
  }
  if (topics.empty()) return outcome;
  if (std::string problem = connect(); !problem.empty()) {
    outcome.error = problem;
    return outcome;
  }
  Batch batch;
  uint64_t generation = 0;
  {
    std::lock_guard lock(mutex_);
    generation = generation_;
  }
  std::string failure;
  for (const std::string& topic : topics) {
    int mid = 0;
    int rc = mosquitto_publish(mosq_, &mid, topic.c_str(), static_cast<int>(payload.size()),
                               payload.data(), kQos, false);
    if (rc != MOSQ_ERR_SUCCESS) {
      failure = std::string("publishing failed: ") + mosquitto_strerror(rc);
      break;
    }
    std::lock_guard lock(mutex_);
    abandoned_.erase(mid);
    if (earlyAcks_.erase(mid) > 0) {
      ++batch.acknowledged;
    } else {
      inFlight_[mid] = &batch;
      ++batch.pending;
    }
  }
  std::unique_lock lock(mutex_);
  bool settled = changed_.wait_for(lock, timeout_,
                                   [&] { return batch.pending == 0 || generation_ != generation; });
  // Whatever is still in flight no longer belongs to a waiting batch; an ack that comes later
  // must not be taken for one of a later batch that reuses the id.
  for (auto it = inFlight_.begin(); it != inFlight_.end();) {
    if (it->second == &batch) {
      abandoned_.insert(it->first);
      it = inFlight_.erase(it);
    } else {
      ++it;
    }
  }
  outcome.published = batch.acknowledged;
  if (!failure.empty()) {
    outcome.error = failure;
  } else if (batch.pending > 0) {
    outcome.error = settled ? "the broker at " + broker_.url() + " went away while publishing"
                            : "the broker at " + broker_.url() + " acknowledged " +
                                  std::to_string(batch.acknowledged) + " of " +
                                  std::to_string(topics.size()) + " messages in time";
  }
  return outcome;
}

}  // namespace quorvia::devserver
