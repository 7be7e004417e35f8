#pragma once
// A private session bus (dbus-daemon) started and ended by the test.

#include <filesystem>
#include <fstream>
#include <string>

#include "support/ChildProcess.h"

namespace quorvia::testing {

/// It activates no services, so a daemon installed on the machine never
/// joins the test. `address` is empty when it did not start.
struct PrivateBus {
  explicit PrivateBus(const std::filesystem::path& directory)
      : daemon({"dbus-daemon", "--config-file=" + writeConfig(directory), "--nofork",
                "--print-address"}),
        // It prints its address, one line, once it listens.
        address(daemon.waitForLine([](const std::string&) { return true; })) {}

  static std::string writeConfig(const std::filesystem::path& directory) {
    std::filesystem::create_directories(directory);
    const std::string config = (directory / "bus.conf").string();
    std::ofstream(config) << "<busconfig><type>session</type><listen>unix:dir="
                          << directory.string()
                          << "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                             "<allow send_destination=\"*\" eavesdrop=\"true\"/>"
                             "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n";
    return config;
  }

  ChildProcess daemon;  // ended by its PID with the test
  std::string address;
};

}  // namespace quorvia::testing
