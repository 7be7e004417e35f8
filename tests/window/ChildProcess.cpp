#include "window/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

extern char** environ;

namespace quorvia::testing {

ChildProcess::ChildProcess(std::vector<std::string> argv, std::vector<std::string> extraEnv,
                           bool fdWriter) {
  int out[2], err[2], three[2] = {-1, -1};
  if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) return;
  if (fdWriter && ::pipe2(three, O_CLOEXEC) != 0) return;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err[1], 2);
  if (fdWriter) posix_spawn_file_actions_adddup2(&actions, three[1], 3);
  std::vector<std::string> env;
  for (char** e = environ; *e; ++e) env.emplace_back(*e);
  env.insert(env.end(), extraEnv.begin(), extraEnv.end());
  std::vector<char*> args, envp;
  for (auto& a : argv) args.push_back(a.data());
  args.push_back(nullptr);
  for (auto& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), envp.data()) == 0) pid_ = pid;
  posix_spawn_file_actions_destroy(&actions);
  ::close(out[1]);
  ::close(err[1]);
  if (fdWriter) ::close(three[1]);
  out_ = out[0];
  err_ = err[0];
  fd3_ = three[0];
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) {
    // Bounded: a child that ignores SIGTERM for five seconds is killed. The process
    // descriptor becomes readable when it ends.
    const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
    ::kill(pid_, SIGTERM);
    if (pidfd >= 0) {
      pollfd ended{pidfd, POLLIN, 0};
      ::poll(&ended, 1, 5000);
      ::close(pidfd);
    }
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, &status, 0);
    }
  }
  for (int fd : {out_, err_, fd3_}) {
    if (fd >= 0) ::close(fd);
  }
}

int ChildProcess::waitExit(std::chrono::milliseconds timeout) {
  if (pid_ <= 0) return -1;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  // Reading its output to the end keeps a chatty program from blocking on a full pipe.
  while (out_ >= 0 || err_ >= 0) {
    if (!pump(deadline)) break;
  }
  const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
  if (pidfd >= 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd ended{pidfd, POLLIN, 0};
    ::poll(&ended, 1, static_cast<int>(std::max<long long>(0, left.count())));
    ::close(pidfd);
  }
  int status = 0;
  if (::waitpid(pid_, &status, WNOHANG) != pid_) return -1;
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool ChildProcess::pump(std::chrono::steady_clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      deadline - std::chrono::steady_clock::now());
  if (left.count() <= 0) return false;
  pollfd fds[2] = {{out_, POLLIN, 0}, {err_, POLLIN, 0}};
  const int n = ::poll(fds, 2, static_cast<int>(left.count()));
  if (n <= 0) return n < 0 && errno == EINTR;
  bool any = false;
  for (int i = 0; i < 2; ++i) {
    if (!(fds[i].revents & (POLLIN | POLLHUP))) continue;
    char chunk[4096];
    const ssize_t got = ::read(fds[i].fd, chunk, sizeof chunk);
    if (got <= 0) {
      fds[i].fd == out_ ? (::close(out_), out_ = -1) : (::close(err_), err_ = -1);
      continue;
    }
    any = true;
    std::string& buffer = i == 0 ? outBuffer_ : errBuffer_;
    buffer.append(chunk, static_cast<std::size_t>(got));
    for (std::size_t nl; (nl = buffer.find('\n')) != std::string::npos;) {
      std::string line = buffer.substr(0, nl);
      buffer.erase(0, nl + 1);
      output_.push_back((i == 0 ? "" : "! ") + line);
      (i == 0 ? outLines_ : errLines_).push_back(std::move(line));
    }
  }
  return any || out_ >= 0 || err_ >= 0;
}

std::string ChildProcess::waitForLine(const std::function<bool(const std::string&)>& match,
                                      std::chrono::milliseconds timeout, bool fromStderr) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  auto& lines = fromStderr ? errLines_ : outLines_;
  auto& read = fromStderr ? errRead_ : outRead_;
  for (;;) {
    while (read < lines.size()) {
      if (match(lines[read])) return lines[read++];
      ++read;
    }
    if ((out_ < 0 && err_ < 0) || !pump(deadline)) return "";
  }
}

std::string ChildProcess::readFd3Line(std::chrono::milliseconds timeout) {
  std::string text;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (fd3_ >= 0 && text.find('\n') == std::string::npos) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd fd{fd3_, POLLIN, 0};
    if (left.count() <= 0 || ::poll(&fd, 1, static_cast<int>(left.count())) <= 0) break;
    char chunk[64];
    const ssize_t got = ::read(fd3_, chunk, sizeof chunk);
    if (got <= 0) break;
    text.append(chunk, static_cast<std::size_t>(got));
  }
  return text.substr(0, text.find('\n'));
}

}  // namespace quorvia::testing
