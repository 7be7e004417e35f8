// What the example hosts share: their command line, and the lines they print
// for people and tests (what the SDK's events say, where the banner is).
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include "quorvia/Observer.h"
#include "quorvia/Version.h"
#include "quorvia/platform/HostWindow.h"

namespace example {

struct HostOptions {
  std::string appToken = "demo-app-token";
  std::string serviceURL, pushBroker, dataDir;
  int width = 375;
  int height = 667;
  bool printFrames = false;
};

inline constexpr const char* kOptionsHelp = R"(Options:
  --app-token TOKEN     the application token the SDK starts with (default: demo-app-token)
  --service-url URL     the poll service (default: $QUORVIA_SERVICE_BASE_URL, else the
                        SDK's built-in http://127.0.0.1:8765)
  --push-broker URL     the MQTT broker (default: $QUORVIA_PUSH_BROKER, else
                        mqtt://127.0.0.1:1883)
  --data-dir DIR        where the SDK keeps its files (default: $XDG_DATA_HOME/quorvia/NAME)
  --width POINTS        window width (default: 375)
  --height POINTS       window height (default: 667)
  --print-frames        print the banner's elements and where they are, as they change
  -h, --help            print this help
  --version             print the version
)";

// Exits 0 after --help/--version and 2 on a usage error.
inline HostOptions parseHostOptions(int argc, char** argv, const char* name, const char* about) {
  HostOptions o;
  auto fail = [name](const std::string& message) {
    std::fprintf(stderr, "%s: %s (see --help)\n", name, message.c_str());
    std::exit(2);
  };
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) fail(arg + " needs a value");
      return argv[++i];
    };
    auto size = [&] {
      const int v = std::atoi(value().c_str());
      if (v < 100 || v > 4000) fail(arg + " needs a number of points from 100 to 4000");
      return v;
    };
    if (arg == "-h" || arg == "--help") {
      std::printf("Usage: %s [options]\n\n%s\n\n%s", name, about, kOptionsHelp);
      std::exit(0);
    } else if (arg == "--version") {
      std::printf("%s %s\n", name, QUORVIA_VERSION);
      std::exit(0);
    } else if (arg == "--app-token") {
      o.appToken = value();
    } else if (arg == "--service-url") {
      o.serviceURL = value();
    } else if (arg == "--push-broker") {
      o.pushBroker = value();
    } else if (arg == "--data-dir") {
      o.dataDir = value();
    } else if (arg == "--width") {
      o.width = size();
    } else if (arg == "--height") {
      o.height = size();
    } else if (arg == "--print-frames") {
      o.printFrames = true;
    } else {
      fail("unknown option " + arg);
    }
  }
  if (o.appToken.empty()) fail("--app-token must not be empty");
  return o;
}

// One line on standard output, at once: tests read it as it comes.
inline void say(const std::string& line) {
  std::printf("host: %s\n", line.c_str());
  std::fflush(stdout);
}

// Says `line` when it differs from the last one said through `last`.
inline void sayChanged(std::string& last, const std::string& line) {
  if (line != last) say(last = line);
}

// An observer that says each of the SDK's events as a line.
inline quorvia::Observer sayingObserver() {
  using namespace quorvia;
  return {
      .deviceRegistered = [](const std::string&) { say("registered"); },
      .deviceRegistrationFailed =
          [](const RegistrationFailure& f) { say("not registered: " + f.error); },
      .pollPresented = [](const PollEvent& p) { say("presented " + p.question.value_or("")); },
      .bannerExpanded = [](const PollEvent&) { say("expanded"); },
      .replySent =
          [](const ReplyEvent& r) {
            say("replied " + r.replyText.value_or("") + (r.succeeded() ? " ok" : " failed"));
          },
      .bannerHidden = [](const PollEvent&) { say("hidden"); },
  };
}

// Says the banner's elements and where they are, once they settle and when they changed.
inline void sayElements(const quorvia::platform::HostWindow& host, std::string& last) {
  if (host.isAnimating()) return;
  std::string frames = "elements";
  for (const auto& element : host.accessibleElements())
    frames += "; " + quorvia::platform::describe(element);
  sayChanged(last, frames);
}

}  // namespace example
