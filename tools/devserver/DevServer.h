#pragma once

#include <httplib.h>

#include <condition_variable>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "AccessToken.h"
#include "AdminGate.h"
#include "EventHub.h"
#include "GuardedServer.h"
#include "PollStore.h"

namespace quorvia::devserver {

class PushFanout;

// How a DevServer is set up.
struct DevServerOptions {
  // SQLite file holding polls, devices, replies and the generated signing secret.
  std::filesystem::path database;
  // Key that signs access tokens; when empty, the one stored in the database is used, or a new
  // random one is generated and stored there so tokens survive restarts.
  std::string jwtSecret;
  // Larger request bodies are refused with 413 before any handler sees them, however framed;
  // form bodies are capped at kMaxFormBodyBytes (BoundedBody.h) whatever this says.
  size_t maxBodyBytes = 1024 * 1024;
  // Token the dashboard and the admin API require; empty turns the check off.
  std::string adminToken;
  // Sends pushes for POST /admin/polls/<id>/push; null answers that call 503. Must outlive the
  // server.
  PushFanout* push = nullptr;
  // Time, size and number limits of client connections.
  ConnectionLimits limits;
  // Receives one line per request ("POST /endpoints/ 200 0.4 ms"), from the server's worker
  // threads, possibly several at once. When empty, lines go to standard output.
  std::function<void(const std::string&)> requestLog;
};

// The local poll service: the SDK's four endpoints and the admin API over one SQLite database.
// Typical use: open(), bind(), then run() on one thread until stop() is called from another.
class DevServer final {
 public:
  // Opens the database and prepares the routes. On failure returns null and sets `*error`.
  static std::unique_ptr<DevServer> open(DevServerOptions options, std::string* error);

  // Stops the server if it runs; must not race with a run() that has not returned yet.
  ~DevServer();
  DevServer(const DevServer&) = delete;
  DevServer& operator=(const DevServer&) = delete;

  // Binds the listening socket; `port` 0 picks a free one. Returns the bound port, or -1 when
  // the address cannot be bound. Clients may connect as soon as this returns.
  int bind(const std::string& host, int port);

  // Serves requests on the calling thread until stop(); returns false if it could not serve
  // (not bound). Call once.
  bool run();

  // Makes run() return, waiting until it has; safe from any thread (including before run()
  // starts, in which case run() returns at once). In-flight requests are finished first; event
  // streams and idle connections are ended.
  void stop();

 private:
  DevServer(DevServerOptions options, std::unique_ptr<PollStore> store, std::string secret);

  DevServerOptions options_;
  std::unique_ptr<PollStore> store_;
  AccessToken tokens_;
  EventHub events_;
  AdminGate gate_;
  GuardedServer server_;

  std::mutex mutex_;
  std::condition_variable stateChanged_;
  bool stopRequested_ = false;
  bool running_ = false;
};

}  // namespace quorvia::devserver
