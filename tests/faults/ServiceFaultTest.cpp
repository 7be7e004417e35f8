// The SDK's public service calls against misbehaving servers and damaged
// stores. Each case runs in a process of its own (the service base URL is
// read once per process): it stores an access token, breaks one thing, makes
// one call and checks the promised outcome, and that the stored token is
// still there once the fault is gone.

#include <linux/capability.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>

#include "keychain/LKKeychain.h"
#include "platform/Device.h"
#include "platform/KeychainStore.h"
#include "quorvia/QuorviaSDK.h"
#include "sdk/SDKState.h"
#include "support/LoopbackServer.h"
#include "support/PlatformTest.h"

namespace quorvia::testing {
namespace {

using platform::Value;
using Behaviour = LoopbackServer::Behaviour;
namespace fs = std::filesystem;

void reply() {
  sdk::SDKState::shared().service->sendReplyWithIdentifier("yes", Value{{"poll", {{"id", 7}}}}, {});
}

// Root passes every permission check; the read-only case needs the checks.
// Capabilities belong to a thread: the stores do their file work on the main
// queue, which is this thread.
void setFileCapabilities(bool on) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
  ASSERT_EQ(::syscall(SYS_capget, &header, data), 0);
  for (const int cap : {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH, CAP_FOWNER}) {
    auto& effective = data[cap / 32].effective;
    const auto bit = 1u << (cap % 32);
    effective = on ? effective | (data[cap / 32].permitted & bit) : effective & ~bit;
  }
  ASSERT_EQ(::syscall(SYS_capset, &header, data), 0);
}

// A write past the file size limit fails like a write to a full disk.
void limitFileSize(rlim_t bytes) {
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &limit), 0);
  limit.rlim_cur = bytes ? bytes : limit.rlim_max;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
}

std::string readFile(const fs::path& path) {
  return (std::ostringstream() << std::ifstream(path, std::ios::binary).rdbuf()).str();
}

fs::path keychainFile() { return platform::dataDirectory() / platform::kKeychainStoreFileName; }

struct FaultCase {
  std::string name;
  std::function<void()> call = [] { QuorviaSDK::setDeviceToken(platform::Bytes{0xc0, 0xff}); };
  Behaviour server = Behaviour::kAnswer;
  /// The log line (its beginning) that tells the outcome.
  std::string outcome = "QuorviaSDK: Successfully registered device push token.";
  /// Breaks the store, closed first, before the call; `heal` undoes it afterwards.
  std::function<void()> damage = {}, heal = {};
  /// What the failing store logged after "keychain store <file>"; it is left as it was.
  std::optional<std::string> storeLine = {};
  double timeout = 10.0;
};

class ServiceFaultTest : public PlatformTest, public ::testing::WithParamInterface<FaultCase> {
 protected:
  /// Closes the keychain store; the next keychain call opens the file anew.
  void reopenKeychain() {
    env_->setKeychainStore(platform::makeSQLiteKeychainStore(platform::dataDirectory()));
  }
  bool logged(const std::string& beginning) const {
    return std::ranges::any_of(log_.lines(),
                               [&](const auto& l) { return l.starts_with(beginning); });
  }
  void SetUp() override {
    PlatformTest::SetUp();
    reopenKeychain();
    env_->setURLTransport(std::make_shared<ShortTimeoutTransport>(GetParam().timeout));
  }
};

const std::string kRegisterFailed =
    "QuorviaSDK: Failed registering device push token: Error Domain=NSURLErrorDomain Code=";
const std::string kReplyFailed =
    "QuorviaSDK: Failed to send poll reply: Error Domain=NSURLErrorDomain Code=";

const FaultCase kCases[] = {
    {.name = "ConnectionRefused",
     .server = Behaviour::kRefuse,
     .outcome = kRegisterFailed + "-1004"},
    {.name = "ServerNeverAnswers",
     .call = reply,
     .server = Behaviour::kStall,
     .outcome = kReplyFailed + "-1001",
     .timeout = 0.5},
    {.name = "RedirectLoop",
     .call = reply,
     .server = Behaviour::kRedirectToSelf,
     .outcome = kReplyFailed + "-1007"},
    // The stored token is still read (a rollback journal needs no file to
    // read); the new one cannot be written beside it.
    {.name = "ReadOnlyDataDirectory",
     .damage =
         [] {
           fs::permissions(platform::dataDirectory(),
                           fs::perms::owner_read | fs::perms::owner_exec);
           setFileCapabilities(false);
         },
     .heal =
         [] {
           setFileCapabilities(true);
           fs::permissions(platform::dataDirectory(), fs::perms::owner_all);
         },
     .storeLine = " update failed: attempt to write a readonly database"},
    {.name = "DiskFull",
     .damage = [] { limitFileSize(1024); },
     .heal = [] { limitFileSize(0); },
     .storeLine = " update failed: disk I/O error"},
};

TEST_P(ServiceFaultTest, OutcomeIsPromisedAndTokenSurvives) {
  const FaultCase& c = GetParam();
  LoopbackServer server(c.server);
  server.setReply({200, "application/json", "{\"access_token\":\"new\"}"});
  ASSERT_EQ(::setenv("QUORVIA_SERVICE_BASE_URL", server.baseURL().c_str(), 1), 0);

  ASSERT_TRUE(LKKeychain::setPassword("old", "polls", "user_token"));
  if (c.damage) {
    reopenKeychain();
    c.damage();
  }
  if (HasFatalFailure()) return;
  const std::string storeBefore = readFile(keychainFile());

  log_.clear();
  c.call();
  const bool done =
      loop_->runUntil([&] { return logged(c.outcome); }, platform::seconds(c.timeout + 20));
  drain();
  if (c.heal) c.heal();

  EXPECT_TRUE(done) << "no \"" << c.outcome << "\" in:\n" << ::testing::PrintToString(log_.lines());
  EXPECT_EQ(LKKeychain::passwordForService("polls", "user_token"), "old");
  if (c.storeLine) {
    EXPECT_TRUE(logged("QuorviaSDK: keychain store " + keychainFile().string() + *c.storeLine));
    EXPECT_EQ(readFile(keychainFile()), storeBefore) << "the failing store is left as it was";
  }
}

void PrintTo(const FaultCase& c, std::ostream* os) { *os << c.name; }

INSTANTIATE_TEST_SUITE_P(Faults, ServiceFaultTest, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace quorvia::testing
