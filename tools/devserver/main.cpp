// quorvia-devserver: a local poll service for developing against the Quorvia SDK.

#include <pthread.h>
#include <signal.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <thread>

#include "DevServer.h"

namespace {

namespace fs = std::filesystem;
using quorvia::devserver::DevServer;
using quorvia::devserver::DevServerOptions;

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

}  // namespace

int main(int argc, char** argv) {
  std::string host = "127.0.0.1";
  int port = 8765;
  std::string database = defaultDatabase().string();
  std::string jwtSecret;
  size_t maxBodyBytes = 1024 * 1024;

  CLI::App app{
      "quorvia-devserver: a local Quorvia poll service (the SDK's four endpoints and a JSON "
      "admin API under /admin) backed by SQLite. Prints \"listening on http://HOST:PORT\" once "
      "ready and one line per request; stops on SIGINT or SIGTERM."};
  app.add_option("--host", host, "Address to listen on")->capture_default_str();
  app.add_option("--port", port, "TCP port to listen on; 0 picks a free port and prints it")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  app.add_option("--db", database,
                 "SQLite database file, created when missing (default: "
                 "$XDG_DATA_HOME/quorvia/devserver/devserver.sqlite3)")
      ->capture_default_str();
  app.add_option("--jwt-secret", jwtSecret,
                 "Key that signs access tokens (HS256); default: a random key generated once "
                 "and kept in the database");
  app.add_option("--max-body-bytes", maxBodyBytes,
                 "Largest request body accepted; larger ones get 413")
      ->check(CLI::Range(size_t{1}, size_t{1} << 30))
      ->capture_default_str();
  CLI11_PARSE(app, argc, argv);

  fs::path databasePath(database);

  // Signals are taken by one waiting thread, so every other thread (httplib's workers included,
  // which inherit this mask) runs undisturbed and shutdown happens outside a signal handler.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  std::string error;
  DevServerOptions options;
  options.database = databasePath;
  options.jwtSecret = jwtSecret;
  options.maxBodyBytes = maxBodyBytes;
  std::unique_ptr<DevServer> server = DevServer::open(std::move(options), &error);
  if (!server) {
    std::fprintf(stderr, "quorvia-devserver: %s\n", error.c_str());
    return 1;
  }
  int boundPort = server->bind(host, port);
  if (boundPort < 0) {
    std::fprintf(stderr, "quorvia-devserver: cannot listen on %s:%d\n", host.c_str(), port);
    return 1;
  }
  std::printf("quorvia-devserver: database %s\n", databasePath.c_str());
  std::printf("listening on http://%s:%d\n", host.c_str(), boundPort);
  std::fflush(stdout);

  // The waiter lives until main wakes it with SIGUSR1 after run() returned, so that signal
  // always finds it; a second SIGINT while stopping is harmless.
  std::thread waiter([&server, &signals] {
    for (int received = 0; sigwait(&signals, &received) == 0 && received != SIGUSR1;) {
      std::printf("quorvia-devserver: shutting down\n");
      std::fflush(stdout);
      server->stop();
    }
  });
  bool served = server->run();
  pthread_kill(waiter.native_handle(), SIGUSR1);
  waiter.join();
  std::printf("quorvia-devserver: stopped\n");
  std::fflush(stdout);
  return served ? 0 : 1;
}
