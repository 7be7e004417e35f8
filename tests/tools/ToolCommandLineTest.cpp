// The two tools as command-line programs: --help, --version, usage errors (exit 2, a message
// naming the program), a port already taken, reading a script from standard input and --strict.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "integration/ToolProcess.h"
#include "support/PlatformTest.h"

namespace {

TEST(ToolCommandLine, HelpVersionUsageErrorsTakenPortsAndStrictScripts) {
  const std::filesystem::path data = quorvia::testing::makeTempDirectory("tool-cli");
  // A port that is in use while the cases run.
  int taken = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t length = sizeof address;
  ASSERT_EQ(bind(taken, reinterpret_cast<sockaddr*>(&address), length), 0);
  ASSERT_EQ(listen(taken, 1), 0);
  ASSERT_EQ(getsockname(taken, reinterpret_cast<sockaddr*>(&address), &length), 0);
  const std::string port = std::to_string(ntohs(address.sin_port));
  const std::string refused = "{\"cmd\": \"nonsense\"}\n", simData = (data / "sim").string();
  const std::string db = (data / "db.sqlite3").string(), errors = (data / "stderr").string();
  // The command line ("devserver" and "sim" name the tools), its input, the exit status, text
  // the output holds and how the error output starts.
  const std::tuple<std::string, std::string, int, std::string, std::string> cases[] = {
      {"devserver --help", "", 0, "Usage: quorvia-devserver [OPTIONS]", ""},
      {"sim --help", "", 0, "Usage: quorvia-sim [OPTIONS]", ""},
      {"devserver --version", "", 0, "quorvia-devserver " QUORVIA_VERSION "\n", ""},
      {"sim --version", "", 0, "quorvia-sim " QUORVIA_VERSION "\n", ""},
      {"devserver --port x", "", 2, "", "quorvia-devserver: "},
      {"devserver --broker http://x", "", 2, "", "quorvia-devserver: "},
      {"sim --frobnicate", "", 2, "", "quorvia-sim: "},
      {"devserver --port " + port + " --db " + db, "", 1, "",
       "quorvia-devserver: cannot listen on 127.0.0.1:" + port},
      {"devserver push --device xyz --payload /dev/null", "", 2, "", "quorvia-devserver: --device"},
      {"devserver push --device ab01 --payload /dev/null --broker mqtt://127.0.0.1:1", "", 1,
       "quorvia-devserver: publishing",
       "quorvia-devserver: cannot reach the broker at mqtt://127.0.0.1:1"},
      {"sim --script - --data-dir " + simData, refused, 0, R"({"event":"error")", ""},
      {"sim --strict --script - --data-dir " + simData, refused, 1, R"({"event":"error")",
       "quorvia-sim: 1 command(s) refused"},
  };
  for (const auto& [command, input, status, outHas, errStart] : cases) {
    SCOPED_TRACE(command);
    std::vector<std::string> argv;
    std::istringstream words(command);
    for (std::string word; words >> word;) {
      argv.push_back(word == "devserver" ? QUORVIA_DEVSERVER_BINARY
                     : word == "sim"     ? QUORVIA_SIM_BINARY
                                         : word);
    }
    quorvia::testing::ToolProcess tool(argv, {}, errors);
    EXPECT_TRUE(tool.write(input));
    EXPECT_EQ(tool.finish(), status) << tool.output();
    std::stringstream err;
    err << std::ifstream(errors).rdbuf();
    EXPECT_NE(tool.output().find(outHas), std::string::npos) << tool.output();
    EXPECT_TRUE(err.str().starts_with(errStart)) << err.str();
  }
  close(taken);
  std::filesystem::remove_all(data);
}

}  // namespace
