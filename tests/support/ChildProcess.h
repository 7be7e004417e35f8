#pragma once
// A program a test starts (a tool, a broker, a bus, an X server): its output
// read as lines with every wait bounded, never a sleep, and the program ended
// by its PID when the test lets go of it.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

extern char** environ;

namespace quorvia::testing {

struct ChildProcessOptions {
  std::vector<std::string> environment;  // "NAME=value", ahead of the test's own
  std::string errorFile;                 // standard error's file; empty: the test's
  bool errorsInOutput = false;           // standard error read as output too
};

class ChildProcess final {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kBound{30};

  explicit ChildProcess(std::vector<std::string> argv, ChildProcessOptions options = {}) {
    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) return;
    ::signal(SIGPIPE, SIG_IGN);  // a child that is gone shows as a failed write
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    if (options.errorsInOutput) posix_spawn_file_actions_adddup2(&actions, out[1], STDERR_FILENO);
    if (!options.errorFile.empty()) {
      posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, options.errorFile.c_str(),
                                       O_WRONLY | O_CREAT | O_TRUNC, 0600);
    }
    // getenv() takes the first entry of a name, so the given ones go first.
    std::vector<char*> args, envp;
    for (std::string& arg : argv) args.push_back(arg.data());
    for (std::string& entry : options.environment) envp.push_back(entry.data());
    for (char** entry = environ; *entry; ++entry) envp.push_back(*entry);
    args.push_back(nullptr);
    envp.push_back(nullptr);
    if (::posix_spawnp(&pid_, args[0], &actions, nullptr, args.data(), envp.data()) != 0) pid_ = -1;
    if (pid_ <= 0) std::fprintf(stderr, "cannot start %s\n", argv[0].c_str());
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    input_ = in[1];
    output_ = out[0];
  }
  ~ChildProcess() {
    stop();
    ::close(output_);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Lines are short enough for one write to a pipe to take them whole.
  bool write(const std::string& data) {
    return ::write(input_, data.data(), data.size()) == static_cast<ssize_t>(data.size());
  }

  // The first line of its output that `match` accepts, waiting for it within kBound; "" if none.
  std::string waitForLine(const std::function<bool(const std::string&)>& match) {
    const auto deadline = Clock::now() + kBound;
    for (std::size_t i = 0;; ++i) {
      if (i == lines_.size() && !readLine(deadline)) return "";
      if (match(lines_[i])) return lines_[i];
    }
  }
  // Reads one more line into lines(); false at `deadline` or the end of the output.
  bool readLine(Clock::time_point deadline) {
    std::size_t newline;
    while ((newline = text_.find('\n', parsed_)) == std::string::npos) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      pollfd fd{output_, POLLIN, 0};
      char chunk[4096];
      if (::poll(&fd, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0))) <= 0)
        return false;
      const ssize_t n = ::read(output_, chunk, sizeof chunk);
      if (n <= 0) return false;
      text_.append(chunk, static_cast<std::size_t>(n));
    }
    lines_.push_back(text_.substr(parsed_, newline - parsed_));
    parsed_ = newline + 1;
    return true;
  }
  const std::vector<std::string>& lines() const { return lines_; }
  // Its process id, for signals the test sends it; -1 once it has ended.
  pid_t pid() const { return pid_; }
  // Everything read from its output so far.
  const std::string& output() const { return text_; }

  // Closes its input and waits for the exit, reading on so that it never blocks on a full
  // pipe; kills it at the bound. The exit status, or -1 after a signal.
  int finish() {
    closeInput();
    if (pid_ <= 0) return -1;
    const auto deadline = Clock::now() + kBound;
    int status = 0;
    while (::waitpid(pid_, &status, WNOHANG) == 0) {
      if (Clock::now() >= deadline) ::kill(pid_, SIGKILL);
      readLine(std::min(deadline, Clock::now() + std::chrono::milliseconds(100)));
    }
    pid_ = -1;
    while (readLine(Clock::now())) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  // SIGTERM, so that it can save its state; SIGKILL when it has not exited within `grace`.
  void stop(std::chrono::milliseconds grace = std::chrono::seconds(10)) {
    closeInput();
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    const int exitFd = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
    pollfd exited{exitFd, POLLIN, 0};
    if (exitFd < 0 || ::poll(&exited, 1, static_cast<int>(grace.count())) != 1) {
      ::kill(pid_, SIGKILL);
    }
    if (exitFd >= 0) ::close(exitFd);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
  // Ends its input: it reads the end of the file.
  void closeInput() {
    if (input_ >= 0) ::close(input_);
    input_ = -1;
  }

 private:
  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  std::string text_;
  std::size_t parsed_ = 0;  // into text_
  std::vector<std::string> lines_;
};

}  // namespace quorvia::testing
