// quorvia-devserver: a local poll service for developing against the Quorvia SDK.

#include <pthread.h>
#include <signal.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "../CommandLine.h"
#include "AccessToken.h"
#include "DevServer.h"
#include "PushSender.h"

namespace {

namespace fs = std::filesystem;
using quorvia::devserver::DevServer;
using quorvia::devserver::DevServerOptions;
using quorvia::devserver::PushSender;

// How long a push may wait for the broker to accept the connection, and then for its
// acknowledgements.
constexpr std::chrono::seconds kBrokerTimeout{10};
// Larger than any push a device accepts; only guards against a wrong file.
constexpr std::streamsize kMaxPayloadBytes = 256 * 1024;

constexpr const char* kProgram = "quorvia-devserver";

fs::path defaultDatabase() {
  fs::path base;
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg != nullptr && *xdg != '\0') {
    base = xdg;
  } else if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') {
    base = fs::path(home) / ".local" / "share";
  } else {
    base = fs::temp_directory_path();
  }
  return base / "quorvia" / "devserver" / "devserver.sqlite3";
}

// `quorvia-devserver push`: one payload file to one device.
int pushOnce(const quorvia::devserver::BrokerAddress& broker, const std::string& device,
             const std::string& payloadFile) {
  if (!quorvia::devserver::deviceTopic(device)) {
    std::fprintf(stderr, "%s: --device must be the device's push token in hex, not \"%s\"\n",
                 kProgram, device.c_str());
    return 2;
  }
  std::ifstream file(payloadFile, std::ios::binary);
  std::string payload;
  if (file) {
    payload.assign(std::istreambuf_iterator<char>(file), {});
  }
  if (!file.good() && !file.eof()) {
    std::fprintf(stderr, "%s: cannot read %s\n", kProgram, payloadFile.c_str());
    return 1;
  }
  if (static_cast<std::streamsize>(payload.size()) > kMaxPayloadBytes) {
    std::fprintf(stderr, "%s: %s is larger than %lld bytes\n", kProgram, payloadFile.c_str(),
                 static_cast<long long>(kMaxPayloadBytes));
    return 1;
  }
  std::printf("%s: publishing %zu bytes to %s via %s\n", kProgram, payload.size(),
              quorvia::devserver::deviceTopic(device)->c_str(), broker.url().c_str());
  std::fflush(stdout);
  PushSender sender(broker, kBrokerTimeout);
  quorvia::devserver::PushOutcome outcome = sender.publish({device}, payload);
  if (outcome.published != 1) {
    std::fprintf(stderr, "%s: %s\n", kProgram,
                 outcome.error.empty() ? "the broker did not acknowledge the message"
                                       : outcome.error.c_str());
    return 1;
  }
  std::printf("%s: acknowledged by the broker\n", kProgram);
  return 0;
}

int serve(const std::string& host, int port, DevServerOptions options) {
  // Signals are taken by one waiting thread, so every other thread (httplib's workers
  // included, which inherit this mask) runs undisturbed and shutdown happens outside a signal
  // handler.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  std::string error;
  fs::path database = options.database;
  std::string adminToken = options.adminToken;
  std::unique_ptr<DevServer> server = DevServer::open(std::move(options), &error);
  if (!server) {
    std::fprintf(stderr, "%s: %s\n", kProgram, error.c_str());
    return 1;
  }
  int boundPort = server->bind(host, port);
  if (boundPort < 0) {
    std::fprintf(stderr, "%s: cannot listen on %s:%d (in use, or not an address of this host)\n",
                 kProgram, host.c_str(), port);
    return 1;
  }
  std::string origin = "http://" + (host.find(':') != std::string::npos ? "[" + host + "]" : host) +
                       ":" + std::to_string(boundPort);
  std::printf("%s: database %s\n", kProgram, database.c_str());
  std::printf("%s: dashboard %s/?token=%s\n", kProgram, origin.c_str(), adminToken.c_str());
  std::printf("listening on %s\n", origin.c_str());
  std::fflush(stdout);

  // The waiter lives until main wakes it with SIGUSR1 after run() returned, so that signal
  // always finds it; a second SIGINT while stopping is harmless.
  std::thread waiter([&server, &signals] {
    for (int received = 0; sigwait(&signals, &received) == 0 && received != SIGUSR1;) {
      std::printf("%s: shutting down\n", kProgram);
      std::fflush(stdout);
      server->stop();
    }
  });
  bool served = server->run();
  pthread_kill(waiter.native_handle(), SIGUSR1);
  waiter.join();
  std::printf("%s: stopped\n", kProgram);
  std::fflush(stdout);
  return served ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::string host = "127.0.0.1";
  int port = 8765;
  std::string database = defaultDatabase().string();
  std::string jwtSecret;
  std::string adminToken;
  size_t maxBodyBytes = 1024 * 1024;
  const char* brokerEnvironment = std::getenv("QUORVIA_PUSH_BROKER");
  std::string brokerUrl = brokerEnvironment != nullptr && *brokerEnvironment != '\0'
                              ? brokerEnvironment
                              : "mqtt://127.0.0.1:1883";
  std::string device;
  std::string payloadFile;

  CLI::App app{
      "quorvia-devserver: a local Quorvia poll service (the SDK's four endpoints, a dashboard at "
      "/ and a JSON admin API under /admin) backed by SQLite. Prints the dashboard's URL with "
      "its admin token, then \"listening on http://HOST:PORT\" once ready and one line per "
      "request; stops on SIGINT or SIGTERM.",
      kProgram};
  app.set_version_flag("--version", std::string(kProgram) + " " + QUORVIA_VERSION);
  app.add_option("--host", host, "Address to listen on")->capture_default_str();
  app.add_option("--port", port, "TCP port to listen on; 0 picks a free port and prints it")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  app.add_option("--db", database,
                 "SQLite database file, created (0600, in 0700 directories) when missing "
                 "(default: $XDG_DATA_HOME/quorvia/devserver/devserver.sqlite3)")
      ->capture_default_str();
  app.add_option("--jwt-secret", jwtSecret,
                 "Key that signs access tokens (HS256); default: a random key generated once "
                 "and kept in the database");
  app.add_option("--admin-token", adminToken,
                 "Token the dashboard and the admin API require; default: a new random one "
                 "each start, printed in the dashboard URL");
  app.add_option("--max-body-bytes", maxBodyBytes,
                 "Largest request body accepted, however it is sent; larger ones get 413")
      ->check(CLI::Range(size_t{1}, size_t{1} << 30))
      ->capture_default_str();
  app.add_option("--broker", brokerUrl,
                 "MQTT broker pushes are published to: mqtt://HOST[:PORT] or mqtts://HOST[:PORT] "
                 "(TLS with the system's CA store); default $QUORVIA_PUSH_BROKER, else "
                 "mqtt://127.0.0.1:1883")
      ->capture_default_str();
  CLI::App* push = app.add_subcommand(
      "push",
      "Publish one payload file to one device's topic and exit 0 once the broker "
      "acknowledged it (1 otherwise)");
  push->add_option("--device", device, "The device's push token, in hex")->required();
  push->add_option("--payload", payloadFile, "File holding the payload (JSON) to publish")
      ->required();
  push->add_option("--broker", brokerUrl, "MQTT broker, as for the server");
  bool exit = false;
  if (int code = quorvia::tools::parseArguments(app, argc, argv, kProgram, exit); exit) return code;

  std::optional<quorvia::devserver::BrokerAddress> broker =
      quorvia::devserver::BrokerAddress::parse(brokerUrl);
  if (!broker) {
    std::fprintf(stderr,
                 "%s: --broker must be mqtt://HOST[:PORT] or mqtts://HOST[:PORT], not "
                 "\"%s\"\n",
                 kProgram, brokerUrl.c_str());
    return 2;
  }
  if (push->parsed()) return pushOnce(*broker, device, payloadFile);

  if (adminToken.empty()) adminToken = quorvia::devserver::randomHex(16);
  if (adminToken.empty()) {
    std::fprintf(stderr, "%s: cannot generate an admin token\n", kProgram);
    return 1;
  }
  DevServerOptions options;
  options.database = database;
  options.jwtSecret = jwtSecret;
  options.adminToken = adminToken;
  options.maxBodyBytes = maxBodyBytes;
  // Connects at the first push, so a broker that is down only matters when pushing.
  PushSender sender(*broker, kBrokerTimeout);
  options.push = &sender;
  std::printf("%s: pushes go to %s\n", kProgram, broker->url().c_str());
  return serve(host, port, std::move(options));
}
