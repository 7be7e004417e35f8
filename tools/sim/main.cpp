// quorvia-sim: a host application around the Quorvia SDK, driven by JSON lines.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>

#include "EventWriter.h"
#include "LineFeed.h"
#include "Simulator.h"
#include "platform/ConfigurableEnvironment.h"

int main(int argc, char** argv) {
  std::string script;
  std::string dataDirectory;
  std::string pngDirectory;

  CLI::App app{
      "quorvia-sim: plays a host application and the platform around the Quorvia SDK. Reads one "
      "JSON command a line (from --script or standard input; see docs/simulator.md) and writes "
      "one JSON event a line to standard output. The SDK talks to the service named by the "
      "environment variable QUORVIA_SERVICE_BASE_URL (default http://127.0.0.1:8765). Ends at "
      "\"quit\" or at the end of the input."};
  app.add_option("--script", script, "File of JSON-line commands to run instead of standard input")
      ->check(CLI::ExistingFile);
  app.add_option("--data-dir", dataDirectory,
                 "The app's data directory (keychain, user defaults, URL cache); default "
                 "$XDG_DATA_HOME/quorvia/quorvia-sim");
  app.add_option("--png-dir", pngDirectory,
                 "Directory that relative snapshot paths are written to (created when missing); "
                 "default the working directory");
  CLI11_PARSE(app, argc, argv);

  quorvia::platform::ConfigurableEnvironment::install(
      dataDirectory, quorvia::platform::RunLoop::Clock::kReal, "quorvia-sim");

  std::shared_ptr<std::istream> input;
  if (script.empty()) {
    input = std::shared_ptr<std::istream>(&std::cin, [](std::istream*) {});
  } else {
    auto file = std::make_shared<std::ifstream>(script);
    if (!*file) {
      std::fprintf(stderr, "quorvia-sim: cannot read %s\n", script.c_str());
      return 1;
    }
    input = std::move(file);
  }

  auto events = std::make_shared<quorvia::sim::EventWriter>(stdout);
  quorvia::sim::Simulator simulator(events, quorvia::sim::SimulatorOptions{pngDirectory});
  simulator.install();
  quorvia::sim::LineFeed feed(std::move(input));
  while (const std::optional<std::string> line = feed.next()) {
    if (!simulator.execute(*line)) break;
  }
  return 0;
}
