#pragma once
// A real gnome-keyring-daemon on a private session bus, both started and
// ended by the test, in a home directory of the test's own: its login keyring
// is made and unlocked with a test password, and is the default collection.

#include <signal.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/PrivateBus.h"

namespace quorvia::testing {

class KeyringDaemon final {
 public:
  static constexpr const char* kPassword = "test-keyring-password";
  static constexpr const char* kLoginCollection = "/org/freedesktop/secrets/collection/login";

  /// `ready` tells whether the keyring answers on the bus. Without a login
  /// keyring it is a keyring nobody has set up: no collection at all.
  explicit KeyringDaemon(const std::filesystem::path& directory, bool withLoginKeyring = true)
      : bus(directory / "bus"), daemon_(start(directory, bus.address, withLoginKeyring)) {
    if (withLoginKeyring) daemon_.write(kPassword);
    daemon_.closeInput();  // it reads the password up to the end of its input
    // Waits, with a bound, for the keyring to own its name on the bus.
    ready = !bus.address.empty() &&
            run({"gdbus", "wait", "--session", "--timeout", "30", "org.freedesktop.secrets"}) == 0;
  }
  ~KeyringDaemon() { resume(); }  // a stopped daemon would sit out its grace period

  /// Runs a client of this bus (secret-tool, gdbus) to its end; its exit
  /// status, and what it printed in `output`.
  int run(std::vector<std::string> argv, std::string* output = nullptr,
          const std::string& input = "") const {
    ChildProcess tool(std::move(argv), {{"DBUS_SESSION_BUS_ADDRESS=" + bus.address}, "", true});
    if (!input.empty()) tool.write(input);
    const int status = tool.finish();
    if (output) *output = tool.output();
    return status;
  }

  /// Locks the login keyring, as the desktop does when the screen locks.
  bool lock() const {
    return run({"gdbus", "call", "--session", "--dest", "org.freedesktop.secrets", "--object-path",
                "/org/freedesktop/secrets", "--method", "org.freedesktop.Secret.Service.Lock",
                std::string("['") + kLoginCollection + "']"}) == 0;
  }
  /// Stops the daemon where it is: it keeps its name and answers nothing.
  void pause() { ::kill(daemon_.pid(), SIGSTOP); }
  void resume() {
    if (daemon_.pid() > 0) ::kill(daemon_.pid(), SIGCONT);
  }

  PrivateBus bus;
  bool ready = false;

 private:
  static ChildProcess start(const std::filesystem::path& directory, const std::string& address,
                            bool withLoginKeyring) {
    const std::filesystem::path home = directory / "home", runtime = directory / "run";
    std::filesystem::create_directories(home);
    std::filesystem::create_directories(runtime);
    std::filesystem::permissions(runtime, std::filesystem::perms::owner_all);
    std::vector<std::string> argv = {"gnome-keyring-daemon", "--foreground",
                                     "--components=secrets",
                                     "--control-directory=" + (runtime / "keyring").string()};
    if (withLoginKeyring) argv.push_back("--unlock");
    return ChildProcess(
        std::move(argv),
        {{"DBUS_SESSION_BUS_ADDRESS=" + address, "HOME=" + home.string(),
          "XDG_DATA_HOME=" + (home / "data").string(),
          "XDG_CONFIG_HOME=" + (home / "config").string(),
          "XDG_CACHE_HOME=" + (home / "cache").string(), "XDG_RUNTIME_DIR=" + runtime.string()},
         (directory / "keyring.log").string()});
  }

  ChildProcess daemon_;  // ended by its PID with the test
};

}  // namespace quorvia::testing
