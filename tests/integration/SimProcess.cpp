#include "integration/SimProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace quorvia::testing {

SimProcess::SimProcess(const std::string& serviceBaseURL,
                       const std::filesystem::path& dataDirectory) {
  int toChild[2];
  int fromChild[2];
  if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe failed");
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, toChild[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, fromChild[1], STDOUT_FILENO);

  std::vector<std::string> environment;
  for (char** entry = environ; *entry; ++entry) {
    if (std::strncmp(*entry, "QUORVIA_SERVICE_BASE_URL=", 25) != 0)
      environment.emplace_back(*entry);
  }
  environment.push_back("QUORVIA_SERVICE_BASE_URL=" + serviceBaseURL);
  std::vector<char*> envp;
  for (auto& entry : environment) envp.push_back(entry.data());
  envp.push_back(nullptr);

  std::string program = QUORVIA_SIM_PATH;
  std::string dataFlag = "--data-dir";
  std::string dataValue = dataDirectory.string();
  std::vector<char*> argv = {program.data(), dataFlag.data(), dataValue.data(), nullptr};
  const int spawned =
      posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  close(toChild[0]);
  close(fromChild[1]);
  input_ = toChild[1];
  output_ = fromChild[0];
  if (spawned != 0) {
    pid_ = -1;
    throw std::runtime_error(std::string("cannot start quorvia-sim: ") + std::strerror(spawned));
  }
}

SimProcess::~SimProcess() {
  if (input_ >= 0) close(input_);
  if (pid_ > 0) {
    // Closing its input ends the simulator; one that hangs is killed by its own pid.
    const auto deadline = std::chrono::steady_clock::now() + kTimeout;
    int status = 0;
    while (waitpid(pid_, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() >= deadline) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
        break;
      }
      readLine(std::chrono::steady_clock::now() + std::chrono::milliseconds(100));
    }
  }
  if (output_ >= 0) close(output_);
}

void SimProcess::send(const Json& command) { sendLine(command.dump()); }

void SimProcess::sendLine(const std::string& line) {
  const std::string data = line + "\n";
  std::size_t written = 0;
  while (written < data.size()) {
    const ssize_t n = write(input_, data.data() + written, data.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw std::runtime_error("the simulator's input is closed");
    written += static_cast<std::size_t>(n);
  }
}

bool SimProcess::readLine(std::chrono::steady_clock::time_point deadline) {
  for (;;) {
    const std::size_t newline = buffer_.find('\n');
    if (newline != std::string::npos) {
      const std::string line = buffer_.substr(0, newline);
      buffer_.erase(0, newline + 1);
      Json event = Json::parse(line, nullptr, false);
      if (event.is_discarded()) event = {{"event", "unparsable"}, {"line", line}};
      events_.push_back(std::move(event));
      consumed_.push_back(false);
      return true;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    pollfd fd{output_, POLLIN, 0};
    const int ready = poll(&fd, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return false;
    char chunk[4096];
    const ssize_t n = read(output_, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    buffer_.append(chunk, static_cast<std::size_t>(n));
  }
}

std::optional<SimProcess::Json> SimProcess::waitFor(const std::function<bool(const Json&)>& match) {
  const auto deadline = std::chrono::steady_clock::now() + kTimeout;
  for (std::size_t next = 0;;) {
    for (; next < events_.size(); ++next) {
      if (!consumed_[next] && match(events_[next])) {
        consumed_[next] = true;
        return events_[next];
      }
    }
    if (!readLine(deadline)) return std::nullopt;
  }
}

std::optional<SimProcess::Json> SimProcess::waitForEvent(const std::string& name) {
  return waitFor([&name](const Json& e) { return e.value("event", "") == name; });
}

std::optional<SimProcess::Json> SimProcess::waitForLog(const std::string& line) {
  return waitFor([&line](const Json& e) {
    return e.value("event", "") == "log" && e.value("line", "") == line;
  });
}

SimProcess::Json SimProcess::state() {
  send({{"cmd", "state"}});
  return waitForEvent("state").value_or(Json());
}

SimProcess::Json SimProcess::stateAfter(double seconds) {
  send({{"cmd", "wait"}, {"seconds", seconds}});
  return state();
}

std::vector<SimProcess::Json> SimProcess::eventsNamed(const std::string& name) const {
  std::vector<Json> found;
  for (const auto& e : events_) {
    if (e.value("event", "") == name) found.push_back(e);
  }
  return found;
}

int SimProcess::quit() {
  send({{"cmd", "quit"}});
  const auto deadline = std::chrono::steady_clock::now() + kTimeout;
  int status = 0;
  while (waitpid(pid_, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() >= deadline) return -1;
    // Reading on keeps the child from blocking on a full pipe while it exits.
    readLine(std::chrono::steady_clock::now() + std::chrono::milliseconds(100));
  }
  pid_ = -1;
  while (readLine(std::chrono::steady_clock::now())) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace quorvia::testing
