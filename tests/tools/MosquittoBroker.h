#pragma once

// A mosquitto broker of the test's own on a free loopback port, and a subscriber that records
// what devices would receive. Both are stopped by their destructors.

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

struct mosquitto;

namespace quorvia::devserver::testing {

class MosquittoBroker final {
 public:
  // Starts `mosquitto` with a config in `directory` and waits (bounded) until it accepts
  // connections; port() is 0 when it could not be started.
  explicit MosquittoBroker(const std::filesystem::path& directory);
  ~MosquittoBroker();
  MosquittoBroker(const MosquittoBroker&) = delete;
  MosquittoBroker& operator=(const MosquittoBroker&) = delete;

  int port() const { return port_; }
  // Stops the broker now (SIGKILL, then waits for it); port() stays as it was.
  void stop();
  std::string url() const { return "mqtt://127.0.0.1:" + std::to_string(port_); }

 private:
  pid_t pid_ = -1;
  int port_ = 0;
  int log_ = -1;  // kept open: a broker writing to a closed pipe would die of SIGPIPE
};

// One received message.
struct Delivery {
  std::string topic;
  std::string payload;
};

// Subscribes to every device topic with QoS 1 and keeps what arrives.
class DeviceSubscriber final {
 public:
  // Connects and waits (bounded) until the subscription is in place; ready() says whether it is.
  explicit DeviceSubscriber(int port);
  ~DeviceSubscriber();
  DeviceSubscriber(const DeviceSubscriber&) = delete;
  DeviceSubscriber& operator=(const DeviceSubscriber&) = delete;

  bool ready();
  // Waits until at least `count` messages arrived or `bound` passed; returns them all.
  std::vector<Delivery> waitFor(size_t count, std::chrono::milliseconds bound);

 private:
  void received(Delivery delivery);
  void subscribedNow();

  mosquitto* mosq_ = nullptr;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool subscribed_ = false;
  std::vector<Delivery> deliveries_;
};

}  // namespace quorvia::devserver::testing
