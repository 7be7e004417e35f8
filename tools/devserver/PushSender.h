#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "PushFanout.h"

struct mosquitto;

namespace quorvia::devserver {

// Where pushes go: an MQTT broker given as mqtt://HOST[:PORT] (1883) or mqtts://HOST[:PORT]
// (8883, TLS checked against the system's CA store).
struct BrokerAddress {
  std::string host;
  int port = 1883;
  bool tls = false;

  // Nullopt when `url` is not one of the two forms.
  static std::optional<BrokerAddress> parse(const std::string& url);
  std::string url() const;
};

// The MQTT topic a device's pushes go to: "quorvia/devices/" and its push token in lowercase
// hex; nullopt for a token that is not hex (it could not be a device's topic, and '+' or '#'
// in it would not even be a valid topic to publish to).
std::optional<std::string> deviceTopic(const std::string& pushToken);

// Publishes pushes to devices' topics with QoS 1 through libmosquitto. Connects on first use
// and again after the broker went away; counts a message as sent only once the broker has
// acknowledged it (PUBACK). Every wait is bounded by `timeout`: a broker that is down or stops
// answering gives an error, never a hang. Safe to use from several threads at once.
class PushSender final : public PushFanout {
 public:
  PushSender(BrokerAddress broker, std::chrono::milliseconds timeout);
  ~PushSender() override;
  PushSender(const PushSender&) = delete;
  PushSender& operator=(const PushSender&) = delete;

  PushOutcome publish(const std::vector<std::string>& pushTokens,
                      const std::string& payload) override;

 private:
  struct Batch {
    size_t acknowledged = 0;
    size_t pending = 0;
  };

  // Returns an empty string once connected, else why not. Holds connectMutex_.
  std::string connect();
  void onConnect(int rc);
  void onDisconnect(int rc);
  void onPublish(int mid);

  const BrokerAddress broker_;
  const std::chrono::milliseconds timeout_;

  std::mutex connectMutex_;  // one connection attempt at a time; guards mosq_ creation
  mosquitto* mosq_ = nullptr;
  bool loopStarted_ = false;

  std::mutex mutex_;
  std::condition_variable changed_;
  enum class Link { kDown, kConnecting, kUp } link_ = Link::kDown;
  int connectResult_ = 0;
  uint64_t generation_ = 0;         // counts disconnections, so a batch sees one that happened
  std::map<int, Batch*> inFlight_;  // message id -> its batch
  std::set<int> earlyAcks_;         // acknowledged before the publisher recorded the id
  std::set<int> abandoned_;         // given up waiting for; their late acks are dropped
};

}  // namespace quorvia::devserver
