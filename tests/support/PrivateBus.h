#pragma once
// A private D-Bus message bus (dbus-daemon) started and ended by the test. It
// activates no services, so nothing installed on the machine joins the test:
// what a test needs on the bus, it starts itself.

#include <filesystem>
#include <fstream>
#include <string>

#include "support/ChildProcess.h"

namespace quorvia::testing {

struct PrivateBus {
  /// Listens in `directory`; `address` is empty when it did not start.
  explicit PrivateBus(const std::filesystem::path& directory)
      : daemon({"dbus-daemon", "--config-file=" + writeConfig(directory), "--nofork",
                "--print-address"},
               {.errorsInOutput = true}),
        // It prints its address, one line, once it listens.
        address(daemon.waitForLine([](const std::string& l) { return l.rfind("unix:", 0) == 0; })) {
  }

  static std::string writeConfig(const std::filesystem::path& directory) {
    std::filesystem::create_directories(directory);
    const std::string config = (directory / "bus.conf").string();
    std::ofstream(config) << "<busconfig><type>session</type><listen>unix:dir="
                          << directory.string()
                          << "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                             "<allow send_destination=\"*\" eavesdrop=\"true\"/>"
                             "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy>"
                             // As a session bus allows: a client may wait for many answers.
                             "<limit name=\"max_replies_per_connection\">50000</limit>"
                             "</busconfig>\n";
    return config;
  }

  ChildProcess daemon;  // ended by its PID with the test
  std::string address;
};

}  // namespace quorvia::testing
