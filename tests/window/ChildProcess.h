#pragma once
// A program the test starts, with its stdout and stderr read line by line, and stopped by its
// PID when the test is done.

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace quorvia::testing {

class ChildProcess final {
 public:
  // Starts `argv` with `extraEnv` ("NAME=value") added to this process's environment. When
  // `fdWriter` is set, the child also gets a pipe's write end as descriptor 3. running() is
  // false when the program could not be started.
  ChildProcess(std::vector<std::string> argv, std::vector<std::string> extraEnv = {},
               bool fdWriter = false);
  // SIGTERM, then SIGKILL if it has not ended within a few seconds; then reaps it.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool running() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }
  // Reads output until a line of stdout (or stderr when `fromStderr`) satisfies `match` or
  // `timeout` passes; returns that line, or "" on timeout or end of output. Every line read
  // is kept in output().
  std::string waitForLine(const std::function<bool(const std::string&)>& match,
                          std::chrono::milliseconds timeout, bool fromStderr = false);
  // Reads what descriptor 3 was given, up to a newline, within `timeout`.
  std::string readFd3Line(std::chrono::milliseconds timeout);
  // Waits (bounded) for the program to end and returns its exit status, or -1.
  int waitExit(std::chrono::milliseconds timeout);
  // Every line read so far, stderr lines prefixed with "! ".
  const std::vector<std::string>& output() const { return output_; }

 private:
  bool pump(std::chrono::steady_clock::time_point deadline);
  pid_t pid_ = -1;
  int out_ = -1, err_ = -1, fd3_ = -1;
  std::string outBuffer_, errBuffer_;
  std::vector<std::string> outLines_, errLines_;
  std::size_t outRead_ = 0, errRead_ = 0;
  std::vector<std::string> output_;
};

}  // namespace quorvia::testing
