#pragma once
// A mosquitto broker on a loopback port, started and stopped by the test that
// owns it, and a client that records what devices would receive.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "quorvia/platform/Value.h"

struct mosquitto;

namespace quorvia::testing {

class ChildProcess;

class MosquittoBroker final {
 public:
  /// Keeps its configuration and persistence under `directory`; nothing runs yet.
  explicit MosquittoBroker(std::filesystem::path directory);
  ~MosquittoBroker();

  /// A loopback port nobody listens on now.
  static int freePort();
  /// Starts mosquitto on `port` and waits (bounded) until it accepts
  /// connections. False, with the reason in `error`, when it does not.
  bool start(int port, std::string* error);
  /// Ends it by its PID (SIGTERM, so that it saves its sessions) and reaps it.
  void stop();
  int port() const { return port_; }
  std::string url() const { return "mqtt://127.0.0.1:" + std::to_string(port_); }

 private:
  std::filesystem::path directory_;
  int port_ = 0;
  std::unique_ptr<ChildProcess> process_;
};

struct Delivery {
  std::string topic;
  std::string payload;
};

/// Subscribes to every device topic with QoS 1 and keeps what arrives; it
/// publishes too, as the poll service does.
class DeviceSubscriber final {
 public:
  /// Connects and waits (bounded) until the subscription is in place.
  explicit DeviceSubscriber(int port);
  ~DeviceSubscriber();
  DeviceSubscriber(const DeviceSubscriber&) = delete;
  DeviceSubscriber& operator=(const DeviceSubscriber&) = delete;

  bool ready();
  /// Waits until at least `count` messages arrived or `bound` passed; returns them all.
  std::vector<Delivery> waitFor(std::size_t count, std::chrono::milliseconds bound);
  /// Publishes with QoS 1 and waits (bounded) for the broker's acknowledgement.
  bool publish(const std::string& topic, const std::string& payload);

 private:
  mosquitto* client_ = nullptr;
  std::mutex mu_;
  std::condition_variable changed_;
  bool subscribed_ = false;
  int acks_ = 0;
  std::vector<Delivery> deliveries_;
};

/// The device topic of `token`.
inline std::string deviceTopic(const std::vector<std::uint8_t>& token) {
  return "quorvia/devices/" + platform::hexString(token);
}

}  // namespace quorvia::testing
