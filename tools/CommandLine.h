#pragma once
// The tools' command-line parsing: CLI11's own exit codes are not the
// conventional 2 for a usage error, and its messages do not name the program.

#include <CLI/CLI.hpp>
#include <cstdio>

namespace quorvia::tools {

/// Parses `argv` into `app`. Sets `exit` when the program should end now
/// (--help, --version, or a usage error written to stderr after `program`'s
/// name) and returns its exit status.
inline int parseArguments(CLI::App& app, int argc, char** argv, const char* program, bool& exit) {
  exit = true;
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::fprintf(stderr, "%s: %s\nRun with --help for the options.\n", program, e.what());
    return 2;
  }
  exit = false;
  return 0;
}

}  // namespace quorvia::tools
