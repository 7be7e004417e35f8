#include "support/MosquittoBroker.h"

#include <arpa/inet.h>
#include <mosquitto.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <fstream>

#include "support/ChildProcess.h"

namespace quorvia::testing {

constexpr auto kBound = std::chrono::seconds(10);

int MosquittoBroker::freePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t length = sizeof address;
  int port = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  ::close(fd);
  return port;
}

bool MosquittoBroker::start(int port, std::string* error) {
  stop();
  port_ = port;
  std::filesystem::create_directories(directory_);
  std::string config = (directory_ / "mosquitto.conf").string();
  std::ofstream(config) << "listener " << port << " 127.0.0.1\nallow_anonymous true\n"
                        << "persistence true\npersistence_location " << directory_.string()
                        << "/\nlog_dest file " << directory_.string()
                        << "/mosquitto.log\n"
                        // As root it would switch users and lose the directory.
                        << "user root\n";
  // The broker tells its service manager when it listens: here, the test.
  const std::string socketPath = (directory_ / "ready").string();
  sockaddr_un address{AF_UNIX, {}};
  socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
  const int ready = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  std::filesystem::remove(socketPath);
  ::bind(ready, reinterpret_cast<sockaddr*>(&address), sizeof address);
  process_ =
      std::make_unique<ChildProcess>(std::vector<std::string>{"/usr/sbin/mosquitto", "-c", config},
                                     ChildProcessOptions{{"NOTIFY_SOCKET=" + socketPath}});
  char message[256] = {};
  pollfd readable{ready, POLLIN, 0};
  const bool up = ::poll(&readable, 1, 10'000) == 1 &&
                  ::recv(ready, message, sizeof message - 1, 0) > 0 &&
                  std::string_view(message).find("READY=1") != std::string_view::npos;
  ::close(ready);
  if (!up) *error = "mosquitto did not start listening on port " + std::to_string(port);
  return up;
}

// SIGTERM lets it save its sessions, but an idle broker may act on it only
// when its loop next wakes: the process is killed after a bounded wait.
void MosquittoBroker::stop() { process_.reset(); }

MosquittoBroker::MosquittoBroker(std::filesystem::path directory)
    : directory_(std::move(directory)) {}
MosquittoBroker::~MosquittoBroker() = default;

DeviceSubscriber::DeviceSubscriber(int port) {
  mosquitto_lib_init();
  client_ = mosquitto_new(nullptr, true, this);
  if (client_ == nullptr) return;
  mosquitto_connect_callback_set(client_, [](mosquitto* mosq, void*, int rc) {
    if (rc == 0) mosquitto_subscribe(mosq, nullptr, "quorvia/devices/#", 1);
  });
  // Runs `change` under the lock, then wakes the waiters.
  static constexpr auto update = [](void* self, auto change) {
    auto* subscriber = static_cast<DeviceSubscriber*>(self);
    std::lock_guard lock(subscriber->mu_);
    change(*subscriber);
    subscriber->changed_.notify_all();
  };
  mosquitto_subscribe_callback_set(client_, [](mosquitto*, void* self, int, int, const int*) {
    update(self, [](DeviceSubscriber& s) { s.subscribed_ = true; });
  });
  mosquitto_message_callback_set(client_, [](mosquitto*, void* self, const mosquitto_message* m) {
    update(self, [m](DeviceSubscriber& s) {
      s.deliveries_.push_back({m->topic, std::string(static_cast<const char*>(m->payload),
                                                     static_cast<std::size_t>(m->payloadlen))});
    });
  });
  mosquitto_publish_callback_set(client_, [](mosquitto*, void* self, int) {
    update(self, [](DeviceSubscriber& s) { ++s.acks_; });
  });
  mosquitto_reconnect_delay_set(client_, 1, 1, false);
  // A refused first attempt is retried by the loop thread after the reconnect delay.
  mosquitto_connect_async(client_, "127.0.0.1", port, 30);
  mosquitto_loop_start(client_);
  std::unique_lock lock(mu_);
  changed_.wait_for(lock, kBound, [&] { return subscribed_; });
}

DeviceSubscriber::~DeviceSubscriber() {
  if (client_ == nullptr) return;
  mosquitto_disconnect(client_);
  mosquitto_loop_stop(client_, true);
  mosquitto_destroy(client_);
}

bool DeviceSubscriber::ready() {
  std::lock_guard lock(mu_);
  return subscribed_;
}

std::vector<Delivery> DeviceSubscriber::waitFor(std::size_t count,
                                                std::chrono::milliseconds bound) {
  std::unique_lock lock(mu_);
  changed_.wait_for(lock, bound, [&] { return deliveries_.size() >= count; });
  return deliveries_;
}

bool DeviceSubscriber::publish(const std::string& topic, const std::string& payload) {
  std::unique_lock lock(mu_);
  const int before = acks_;
  return mosquitto_publish(client_, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                           payload.data(), 1, false) == MOSQ_ERR_SUCCESS &&
         changed_.wait_for(lock, kBound, [&] { return acks_ > before; });
}

}  // namespace quorvia::testing
