#pragma once
// Runs one of the tools as a child process that reads commands and writes one JSON event a line.
// Every wait is bounded (never a sleep); a child that outlives the bound is killed by its pid.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

extern char** environ;

namespace quorvia::testing {

class ToolProcess final {
 public:
  using Json = nlohmann::ordered_json;
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kTimeout{30};

  // Starts argv[0] with `environment` ("NAME=value") in front of this process's environment;
  // standard error goes to `errorFile` when one is named.
  explicit ToolProcess(std::vector<std::string> argv, std::vector<std::string> environment = {},
                       const std::string& errorFile = "") {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return;
    signal(SIGPIPE, SIG_IGN);  // a child that is gone shows as a failed write
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    if (!errorFile.empty()) {
      posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errorFile.c_str(),
                                       O_WRONLY | O_CREAT | O_TRUNC, 0600);
    }
    // getenv() takes the first entry of a name, so the given ones go first.
    std::vector<char*> args, envp;
    for (std::string& arg : argv) args.push_back(arg.data());
    for (std::string& entry : environment) envp.push_back(entry.data());
    for (char** entry = environ; *entry; ++entry) envp.push_back(*entry);
    args.push_back(nullptr);
    envp.push_back(nullptr);
    if (posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), envp.data()) != 0) pid_ = -1;
    EXPECT_GT(pid_, 0) << "cannot start " << argv[0];
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    input_ = in[1];
    output_ = out[0];
  }
  ~ToolProcess() {
    finish();
    close(output_);
  }
  ToolProcess(const ToolProcess&) = delete;
  ToolProcess& operator=(const ToolProcess&) = delete;

  // Lines are short enough for one write to a pipe to take them whole.
  bool write(const std::string& data) {
    return ::write(input_, data.data(), data.size()) == static_cast<ssize_t>(data.size());
  }
  void send(const Json& command) { EXPECT_TRUE(write(command.dump() + "\n")) << "input closed"; }

  // The first event, read before or during this call, that has all of `fields` and that no
  // earlier waitFor returned; nullopt when none came within kTimeout or the output ended.
  std::optional<Json> waitFor(const Json& fields) {
    const auto deadline = Clock::now() + kTimeout;
    for (size_t next = 0;; ++next) {
      if (next == events_.size() && !readLine(deadline)) return std::nullopt;
      if (!consumed_[next] && matches(events_[next], fields)) {
        consumed_[next] = true;
        return events_[next];
      }
    }
  }
  std::optional<Json> waitForEvent(const std::string& name) { return waitFor({{"event", name}}); }
  std::optional<Json> waitForLog(const std::string& line) {
    return waitFor({{"event", "log"}, {"line", line}});
  }
  // True when `event` has all of `fields`.
  static bool matches(const Json& event, const Json& fields) {
    for (const auto& [key, value] : fields.items()) {
      if (event.value(key, Json()) != value) return false;
    }
    return true;
  }
  // The simulator's state; after letting its main loop run for `seconds` when given.
  Json state(double seconds = 0) {
    if (seconds > 0) send({{"cmd", "wait"}, {"seconds", seconds}});
    send({{"cmd", "state"}});
    return waitForEvent("state").value_or(Json());
  }

  const std::vector<Json>& events() const { return events_; }
  std::vector<Json> eventsNamed(const std::string& name) const {
    std::vector<Json> found;
    for (const Json& e : events_) {
      if (e.value("event", "") == name) found.push_back(e);
    }
    return found;
  }
  // Everything the child wrote to its standard output so far.
  const std::string& output() const { return output_text_; }

  // Closes the input and waits for the exit, reading on so that the child never blocks on a
  // full pipe. Returns the exit status; -1 after a signal or when it had to be killed.
  int finish() {
    if (input_ >= 0) close(input_);
    input_ = -1;
    if (pid_ <= 0) return -1;
    const auto deadline = Clock::now() + kTimeout;
    int status = 0;
    while (waitpid(pid_, &status, WNOHANG) == 0) {
      if (Clock::now() >= deadline) kill(pid_, SIGKILL);
      readLine(std::min(deadline, Clock::now() + std::chrono::milliseconds(100)));
    }
    pid_ = -1;
    while (readLine(Clock::now())) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  // Reads one more line into events_; false at the deadline or the end of the output.
  bool readLine(Clock::time_point deadline) {
    size_t newline;
    while ((newline = output_text_.find('\n', parsed_)) == std::string::npos) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      pollfd fd{output_, POLLIN, 0};
      char chunk[4096];
      if (poll(&fd, 1, static_cast<int>(std::max<int64_t>(left.count(), 0))) <= 0) return false;
      ssize_t n = read(output_, chunk, sizeof chunk);
      if (n <= 0) return false;
      output_text_.append(chunk, static_cast<size_t>(n));
    }
    Json event = Json::parse(output_text_.substr(parsed_, newline - parsed_), nullptr, false);
    events_.push_back(event.is_discarded() ? Json{{"event", "unparsable"}} : event);
    consumed_.push_back(false);
    parsed_ = newline + 1;
    return true;
  }

  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  std::string output_text_;
  size_t parsed_ = 0;  // into output_text_
  std::vector<Json> events_;
  std::vector<bool> consumed_;  // events already returned by waitFor
};

}  // namespace quorvia::testing
