// quorvia-devserver: a local poll service for developing against the Quorvia SDK.

#include <pthread.h>
#include <signal.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "AccessToken.h"
#include "DevServer.h"

namespace {

namespace fs = std::filesystem;
using quorvia::devserver::DevServer;
using quorvia::devserver::DevServerOptions;

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

// CLI11's own exit codes are not the conventional 2 for a usage error, and its messages do not
// name the program.
int parseArguments(CLI::App& app, int argc, char** argv, bool& exit) {
  exit = true;
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::fprintf(stderr, "%s: %s\nRun with --help for the options.\n", kProgram, e.what());
    return 2;
  }
  exit = false;
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
  bool exit = false;
  if (int code = parseArguments(app, argc, argv, exit); exit) return code;

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
  return serve(host, port, std::move(options));
}
