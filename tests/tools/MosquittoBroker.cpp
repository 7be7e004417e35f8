#include "MosquittoBroker.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <mosquitto.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

extern char** environ;

namespace quorvia::devserver::testing {

namespace {

constexpr auto kStartBound = std::chrono::seconds(10);

int freeLoopbackPort() {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  int port = 0;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  close(fd);
  return port;
}

}  // namespace

MosquittoBroker::MosquittoBroker(const std::filesystem::path& directory) {
  int port = freeLoopbackPort();
  const std::filesystem::path config = directory / "mosquitto.conf";
  std::ofstream(config) << "listener " << port << " 127.0.0.1\nallow_anonymous true\n"
                        << "log_dest stderr\nlog_type information\n";
  // The broker's log says when it listens; reading it is the wait, with a bound.
  int output[2];
  if (pipe2(output, O_CLOEXEC) != 0) return;
  // The test process may ignore SIGPIPE or block signals; the broker starts with defaults.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  sigaddset(&defaults, SIGTERM);
  sigaddset(&defaults, SIGINT);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output[1], STDERR_FILENO);
  std::string configText = config.string();
  char* argv[] = {const_cast<char*>("mosquitto"), const_cast<char*>("-c"), configText.data(),
                  nullptr};
  int rc = posix_spawnp(&pid_, "mosquitto", &actions, &attributes, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  close(output[1]);
  if (rc != 0) {
    pid_ = -1;
    close(output[0]);
    return;
  }
  std::string log;
  auto deadline = std::chrono::steady_clock::now() + kStartBound;
  // "running" is logged once every listener is open.
  while (log.find(" running") == std::string::npos) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd fds{output[0], POLLIN, 0};
    char buffer[512];
    ssize_t n = 0;
    if (left.count() <= 0 || poll(&fds, 1, static_cast<int>(left.count())) <= 0 ||
        (n = read(output[0], buffer, sizeof buffer)) <= 0) {
      close(output[0]);
      return;
    }
    log.append(buffer, static_cast<size_t>(n));
  }
  log_ = output[0];
  port_ = port;
}

MosquittoBroker::~MosquittoBroker() { stop(); }

void MosquittoBroker::stop() {
  if (pid_ <= 0) return;
  // An idle mosquitto takes SIGTERM only when its event loop next wakes, which can be long;
  // nothing of its state is needed afterwards.
  kill(pid_, SIGKILL);
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  if (log_ >= 0) close(log_);
  log_ = -1;
}

DeviceSubscriber::DeviceSubscriber(int port) {
  mosquitto_lib_init();
  mosq_ = mosquitto_new(nullptr, true, this);
  if (mosq_ == nullptr) return;
  mosquitto_connect_callback_set(mosq_, [](mosquitto* mosq, void*, int rc) {
    if (rc == 0) mosquitto_subscribe(mosq, nullptr, "quorvia/devices/#", 1);
  });
  mosquitto_subscribe_callback_set(mosq_, [](mosquitto*, void* self, int, int, const int*) {
    static_cast<DeviceSubscriber*>(self)->subscribedNow();
  });
  mosquitto_message_callback_set(
      mosq_, [](mosquitto*, void* self, const mosquitto_message* message) {
        static_cast<DeviceSubscriber*>(self)->received(
            {message->topic, std::string(static_cast<const char*>(message->payload),
                                         static_cast<size_t>(message->payloadlen))});
      });
  mosquitto_reconnect_delay_set(mosq_, 1, 1, false);
  // A refused first attempt is retried by the loop thread after the reconnect delay.
  mosquitto_connect_async(mosq_, "127.0.0.1", port, 30);
  mosquitto_loop_start(mosq_);
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, kStartBound, [&] { return subscribed_; });
}

DeviceSubscriber::~DeviceSubscriber() {
  if (mosq_ == nullptr) return;
  mosquitto_disconnect(mosq_);
  mosquitto_loop_stop(mosq_, true);
  mosquitto_destroy(mosq_);
}

bool DeviceSubscriber::ready() {
  std::lock_guard lock(mutex_);
  return subscribed_;
}

void DeviceSubscriber::subscribedNow() {
  {
    std::lock_guard lock(mutex_);
    subscribed_ = true;
  }
  changed_.notify_all();
}

void DeviceSubscriber::received(Delivery delivery) {
  {
    std::lock_guard lock(mutex_);
    deliveries_.push_back(std::move(delivery));
  }
  changed_.notify_all();
}

std::vector<Delivery> DeviceSubscriber::waitFor(size_t count, std::chrono::milliseconds bound) {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, bound, [&] { return deliveries_.size() >= count; });
  return deliveries_;
}

}  // namespace quorvia::devserver::testing
