// A second process for the keychain tests: saves or reads items in the data
// directory it is given, reporting each outcome as one line on stdout.
//
//   keychain_helper DIR save SERVICE ACCOUNT PASSWORD  (then waits to be killed)
//   keychain_helper DIR read SERVICE ACCOUNT
//   keychain_helper DIR save-many ACCOUNT_PREFIX COUNT

#include <unistd.h>

#include <cstdio>
#include <string>

#include "keychain/LKKeychain.h"
#include "quorvia/platform/Environment.h"

using quorvia::LKKeychain;

namespace {

int report(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) return 2;
  quorvia::platform::installEnvironment(
      quorvia::platform::makeDesktopEnvironment({"keychain_helper", argv[1]}));
  const std::string command = argv[2];
  quorvia::platform::Error error;
  if (command == "save" && argc == 6) {
    if (!LKKeychain::setPassword(argv[5], argv[3], argv[4], &error)) {
      return report("failed " + std::to_string(error.code)) + 1;
    }
    report("saved");
    for (;;) ::pause();  // the parent decides when this process dies
  }
  if (command == "read" && argc == 5) {
    auto password = LKKeychain::passwordForService(argv[3], argv[4], &error);
    return report(password ? "password " + *password : "failed " + std::to_string(error.code));
  }
  if (command == "save-many" && argc == 5) {
    const int count = std::stoi(argv[4]);
    int failures = 0;
    for (int i = 0; i < count; ++i) {
      const std::string account = std::string(argv[3]) + std::to_string(i);
      failures += !LKKeychain::setPassword("pw-" + account, "polls", account);
      failures += LKKeychain::passwordForService("polls", account) != "pw-" + account;
    }
    report("failures " + std::to_string(failures));
    return failures == 0 ? 0 : 1;
  }
  return 2;
}
