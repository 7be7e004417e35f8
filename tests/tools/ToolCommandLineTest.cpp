// The two tools as command-line programs: --version, usage errors (exit 2, a message naming the
// program), a port already taken, reading a script from standard input and --strict.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

extern char** environ;

namespace {

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

// Runs `argv` with `input` on its standard input; every wait is bounded, and a program that
// outlives the bound is killed (and fails the test through its status).
Outcome run(std::vector<std::string> argv, const std::string& input) {
  Outcome outcome;
  int in[2], out[2], err[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
    return outcome;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
  std::vector<char*> args;
  for (std::string& arg : argv) args.push_back(arg.data());
  args.push_back(nullptr);
  pid_t pid = -1;
  int rc = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(in[0]);
  close(out[1]);
  close(err[1]);
  if (rc == 0) {
    [[maybe_unused]] ssize_t n = write(in[1], input.data(), input.size());
  }
  close(in[1]);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  for (int open = 2; rc == 0 && open > 0;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || poll(fds, 2, static_cast<int>(left.count())) <= 0) {
      kill(pid, SIGKILL);
      break;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char buffer[4096];
      ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        (i == 0 ? outcome.out : outcome.err).append(buffer, static_cast<size_t>(n));
      } else {
        fds[i].fd = -1;
        --open;
      }
    }
  }
  close(out[0]);
  close(err[0]);
  int status = 0;
  if (rc == 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status)) {
    outcome.status = WEXITSTATUS(status);
  }
  return outcome;
}

TEST(ToolCommandLine, VersionUsageErrorsTakenPortsAndStrictScripts) {
  const std::string devserver = QUORVIA_DEVSERVER_BINARY;
  const std::string sim = QUORVIA_SIM_BINARY;
  const std::filesystem::path data =
      std::filesystem::temp_directory_path() / ("tool-cli-" + std::to_string(getpid()));
  std::filesystem::create_directories(data);
  // A port that is in use while the cases run.
  int taken = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(bind(taken, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(taken, 1), 0);
  ASSERT_EQ(getsockname(taken, reinterpret_cast<sockaddr*>(&address), &length), 0);
  const std::string takenPort = std::to_string(ntohs(address.sin_port));
  const std::string refused = R"({"cmd": "nonsense"})"
                              "\n";
  struct Case {
    const char* name;
    std::vector<std::string> argv;
    std::string input;
    int status;
    std::string outStart;
    std::string errStart;
  };
  const Case cases[] = {
      {"devserver version",
       {devserver, "--version"},
       "",
       0,
       std::string("quorvia-devserver ") + QUORVIA_VERSION + "\n",
       ""},
      {"sim version",
       {sim, "--version"},
       "",
       0,
       std::string("quorvia-sim ") + QUORVIA_VERSION + "\n",
       ""},
      {"devserver bad port", {devserver, "--port", "x"}, "", 2, "", "quorvia-devserver: "},
      {"devserver unknown flag", {devserver, "--frobnicate"}, "", 2, "", "quorvia-devserver: "},
      {"devserver bad broker",
       {devserver, "--broker", "http://x"},
       "",
       2,
       "",
       "quorvia-devserver: "},
      {"sim unknown flag", {sim, "--frobnicate"}, "", 2, "", "quorvia-sim: "},
      {"devserver on a taken port",
       {devserver, "--port", takenPort, "--db", (data / "db.sqlite3").string()},
       "",
       1,
       "",
       "quorvia-devserver: cannot listen on 127.0.0.1:" + takenPort},
      {"push to a device that is not hex",
       {devserver, "push", "--device", "xyz", "--payload", "/dev/null"},
       "",
       2,
       "",
       "quorvia-devserver: --device"},
      {"push without a broker",
       {devserver, "push", "--device", "ab01", "--payload", "/dev/null", "--broker",
        "mqtt://127.0.0.1:" + takenPort},
       "",
       1,
       "quorvia-devserver: publishing",
       "quorvia-devserver: "},
      {"sim script from standard input",
       {sim, "--script", "-", "--data-dir", (data / "sim").string()},
       refused,
       0,
       R"({"event":"error")",
       ""},
      {"sim strict",
       {sim, "--strict", "--script", "-", "--data-dir", (data / "sim").string()},
       refused,
       1,
       R"({"event":"error")",
       "quorvia-sim: 1 command(s) refused"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Outcome outcome = run(c.argv, c.input);
    EXPECT_EQ(outcome.status, c.status) << outcome.out << outcome.err;
    EXPECT_TRUE(outcome.out.starts_with(c.outStart)) << outcome.out;
    EXPECT_TRUE(outcome.err.starts_with(c.errStart)) << outcome.err;
  }
  close(taken);
  std::filesystem::remove_all(data);
}

}  // namespace
