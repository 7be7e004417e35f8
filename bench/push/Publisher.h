#pragma once
// Publishes to a loopback broker as the poll service does (QoS 1), without
// waiting for the broker's acknowledgement, so that a benchmark's clock or
// flood is not paced by its own round trips.

#include <mosquitto.h>

#include <string>

namespace quorvia::bench {

class Publisher final {
 public:
  explicit Publisher(int port) {
    mosquitto_lib_init();
    client_ = mosquitto_new(nullptr, true, nullptr);
    connected_ = client_ && mosquitto_connect(client_, "127.0.0.1", port, 60) == MOSQ_ERR_SUCCESS &&
                 mosquitto_loop_start(client_) == MOSQ_ERR_SUCCESS;
  }
  ~Publisher() {
    if (connected_) {
      mosquitto_disconnect(client_);
      mosquitto_loop_stop(client_, false);
    }
    mosquitto_destroy(client_);
    mosquitto_lib_cleanup();
  }
  Publisher(const Publisher&) = delete;
  Publisher& operator=(const Publisher&) = delete;

  bool publish(const std::string& topic, const std::string& payload) {
    return connected_ &&
           mosquitto_publish(client_, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                             payload.data(), 1, false) == MOSQ_ERR_SUCCESS;
  }

 private:
  mosquitto* client_ = nullptr;
  bool connected_ = false;
};

}  // namespace quorvia::bench
