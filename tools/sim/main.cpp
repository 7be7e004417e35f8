// quorvia-sim: a host application around the Quorvia SDK, driven by JSON lines.

#include <stdio.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>

#include "../CommandLine.h"
#include "EventWriter.h"
#include "LineFeed.h"
#include "Simulator.h"
#include "platform/ConfigurableEnvironment.h"

namespace {

constexpr const char* kProgram = "quorvia-sim";

// Passes the event stream through to standard output and counts the "error" events, which are
// the simulator's answer to a command it refused; --strict turns them into the exit status.
struct EventCounter {
  std::atomic<size_t> errors{0};
  std::string lineStart;  // the first bytes of the line being written
  bool atLineStart = true;
};

ssize_t countingWrite(void* cookie, const char* data, size_t size) {
  static constexpr std::string_view kErrorEvent = R"({"event":"error")";
  auto* counter = static_cast<EventCounter*>(cookie);
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == '\n') {
      counter->lineStart.clear();
      counter->atLineStart = true;
      continue;
    }
    if (!counter->atLineStart) continue;
    counter->lineStart.push_back(data[i]);
    if (!kErrorEvent.starts_with(counter->lineStart)) {
      counter->atLineStart = false;
    } else if (counter->lineStart.size() == kErrorEvent.size()) {
      ++counter->errors;
      counter->atLineStart = false;
    }
  }
  size_t written = std::fwrite(data, 1, size, stdout);
  std::fflush(stdout);
  return static_cast<ssize_t>(written);
}

}  // namespace

int main(int argc, char** argv) {
  std::string script;
  std::string dataDirectory;
  std::string pngDirectory;
  std::string serviceURL;
  std::string pushBroker;
  bool strict = false;
  std::string keychain = "file";

  CLI::App app{
      "quorvia-sim: plays a host application and the platform around the Quorvia SDK. Reads one "
      "JSON command a line (from --script or standard input; see docs/simulator.md) and writes "
      "one JSON event a line to standard output. Ends at \"quit\" or at the end of the input.",
      kProgram};
  app.set_version_flag("--version", std::string(kProgram) + " " + QUORVIA_VERSION);
  app.add_option("--script", script,
                 "File of JSON-line commands to run instead of standard input; - is standard "
                 "input");
  app.add_option("--data-dir", dataDirectory,
                 "The app's data directory (keychain, user defaults, URL cache); default "
                 "$XDG_DATA_HOME/quorvia/quorvia-sim");
  app.add_option("--png-dir", pngDirectory,
                 "Directory that relative snapshot paths are written to (created when missing); "
                 "default the working directory");
  app.add_option("--service-url", serviceURL,
                 "The poll service the SDK talks to; default $QUORVIA_SERVICE_BASE_URL, else "
                 "http://127.0.0.1:8765");
  app.add_option("--push-broker", pushBroker,
                 "The MQTT broker the device registers with and pushes come through; default "
                 "$QUORVIA_PUSH_BROKER, else none (the deviceToken and push commands stand in)");
  app.add_option("--keychain", keychain,
                 "Where keychain items (the access token) are kept: \"file\" (keychain.sqlite in "
                 "the data directory), \"keyring\" (the Secret Service on the session bus) or "
                 "\"automatic\" (the keyring when one answers, else the file), as a desktop host "
                 "has it")
      ->check(CLI::IsMember({"file", "keyring", "automatic"}))
      ->capture_default_str();
  app.add_flag("--strict", strict,
               "Exit 1 when any command was refused (an \"error\" event was written)");
  bool exit = false;
  if (const int code = quorvia::tools::parseArguments(app, argc, argv, kProgram, exit); exit) {
    return code;
  }

  using Storage = quorvia::platform::DesktopEnvironmentOptions::KeychainStorage;
  auto environment = quorvia::platform::ConfigurableEnvironment::install(
      dataDirectory, quorvia::platform::RunLoop::Clock::kReal, "quorvia-sim",
      keychain == "keyring"     ? Storage::kSecretService
      : keychain == "automatic" ? Storage::kAutomatic
                                : Storage::kFile);
  environment->setServiceBaseURL(serviceURL);

  std::shared_ptr<std::istream> input;
  if (script.empty() || script == "-") {
    input = std::shared_ptr<std::istream>(&std::cin, [](std::istream*) {});
  } else {
    auto file = std::make_shared<std::ifstream>(script);
    if (!*file) {
      std::fprintf(stderr, "%s: cannot read %s\n", kProgram, script.c_str());
      return 2;
    }
    input = std::move(file);
  }

  // Lives to the end of the process: the SDK may log from its own threads until then.
  static EventCounter counter;
  std::FILE* out = fopencookie(&counter, "w", {nullptr, countingWrite, nullptr, nullptr});
  if (out == nullptr) out = stdout;
  auto events = std::make_shared<quorvia::sim::EventWriter>(out);
  quorvia::sim::Simulator simulator(events,
                                    quorvia::sim::SimulatorOptions{pngDirectory, pushBroker});
  simulator.install();
  quorvia::sim::LineFeed feed(std::move(input));
  while (const std::optional<std::string> line = feed.next()) {
    if (!simulator.execute(*line)) break;
  }
  std::fflush(out);
  if (strict && counter.errors.load() > 0) {
    std::fprintf(stderr, "%s: %zu command(s) refused\n", kProgram, counter.errors.load());
    return 1;
  }
  return 0;
}
