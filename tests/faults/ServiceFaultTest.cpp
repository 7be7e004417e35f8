// The SDK's public service calls against misbehaving servers and damaged
// stores. Each case runs in a process of its own (the service base URL is
// read once per process): it stores an access token, breaks one thing, makes
// one call and checks the promised outcome, and that the stored token is
// still there once the fault is gone.

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>

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
namespace fs = std::filesystem;

constexpr const char* kService = "polls";
constexpr const char* kAccount = "user_token";

enum class Call { kRegister, kFetch, kReply, kUserInfo };

void makeCall(Call call) {
  switch (call) {
    case Call::kRegister:
      QuorviaSDK::setDeviceToken(platform::Bytes{0xc0, 0xff, 0xee});
      break;
    case Call::kFetch:
      sdk::SDKState::shared().service->fetchPolls();
      break;
    case Call::kReply:
      sdk::SDKState::shared().service->sendReplyWithIdentifier("yes", Value{{"poll", {{"id", 7}}}},
                                                               {});
      break;
    case Call::kUserInfo:
      QuorviaSDK::setUserInfo(Value{{"name", "Ada"}});
      break;
  }
}

// Root passes every permission check; the read-only cases need the checks.
// Capabilities belong to a thread: the stores do their file work on the main
// queue, which is this thread.
void setFileCapabilities(bool on) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
  ASSERT_EQ(::syscall(SYS_capget, &header, data), 0);
  for (const int cap : {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH, CAP_FOWNER}) {
    const auto bit = 1u << (cap % 32);
    if (on) {
      data[cap / 32].effective |= data[cap / 32].permitted & bit;
    } else {
      data[cap / 32].effective &= ~bit;
    }
  }
  ASSERT_EQ(::syscall(SYS_capset, &header, data), 0);
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFile(const fs::path& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
}

const std::string kJunk = std::string("not a store\0\x01\x02\xff", 16) + std::string(4096, 'q');

class ServiceFaultTest;

using Behaviour = LoopbackServer::Behaviour;

struct FaultCase {
  std::string name;
  Behaviour server;
  Reply reply;
  Call call;
  /// The log line (its beginning) that tells the outcome.
  std::string outcome;
  /// The stored token once the fault is gone; nullopt: none readable.
  std::optional<std::string> tokenAfter = "old";
  /// Breaks a store before the call; `heal` undoes it afterwards.
  std::function<void(ServiceFaultTest&)> damage = {};
  std::function<void(ServiceFaultTest&)> heal = {};
  /// Further checks once healed.
  std::function<void(ServiceFaultTest&)> check = {};
  /// Seconds a request may take (ample for 10 MB under the sanitizers).
  double timeout = 10.0;
  bool tls = false;
  /// A base URL in place of the server's.
  std::string address = {};
};

class ServiceFaultTest : public PlatformTest, public ::testing::WithParamInterface<FaultCase> {
 public:
  fs::path dataDirectory() const { return platform::dataDirectory(); }
  fs::path keychainFile() const { return dataDirectory() / platform::kKeychainStoreFileName; }
  fs::path defaultsFile() const { return dataDirectory() / "UserDefaults.qvka"; }

  /// Closes the keychain store; the next keychain call opens the file anew.
  void reopenKeychain() {
    env_->setKeychainStore(platform::makeSQLiteKeychainStore(dataDirectory()));
  }

  bool logged(const std::string& beginning) const {
    for (const auto& line : log_.lines()) {
      if (line.rfind(beginning, 0) == 0) return true;
    }
    return false;
  }

  std::string savedKeychain;

 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    reopenKeychain();
    env_->setURLTransport(std::make_shared<ShortTimeoutTransport>(GetParam().timeout));
  }
};

Reply token(const std::string& value) {
  return {200, "application/json", "{\"access_token\":\"" + value + "\"}"};
}

const std::string kRegistered = "QuorviaSDK: Successfully registered device push token.";
const std::string kRegisterFailed =
    "QuorviaSDK: Failed registering device push token: Error Domain=NSURLErrorDomain Code=";
const std::string kReplyFailed =
    "QuorviaSDK: Failed to send poll reply: Error Domain=NSURLErrorDomain Code=";

const FaultCase kCases[] = {
    {"ConnectionRefused", Behaviour::kRefuse, {}, Call::kRegister, kRegisterFailed + "-1004"},
    {"ServerNeverAnswers",
     Behaviour::kStall,
     {},
     Call::kReply,
     kReplyFailed + "-1001",
     "old",
     {},
     {},
     {},
     /*timeout=*/0.5},
    {"ResetMidBody", Behaviour::kResetMidBody, {}, Call::kRegister, kRegisterFailed + "-1005"},
    // Fetch failures are written unprefixed, always.
    {"TruncatedBody",
     Behaviour::kTruncateBody,
     {},
     Call::kFetch,
     "Error Domain=NSURLErrorDomain Code=-1005"},
    // A complete answer whose JSON breaks off decodes to nothing: no token.
    {"TruncatedJson",
     Behaviour::kAnswer,
     {200, "application/json", "{\"access_token\":\"new"},
     Call::kRegister,
     kRegistered},
    {"TenMegabyteBody",
     Behaviour::kAnswer,
     {200, "application/json",
      "{\"padding\":\"" + std::string(10 << 20, 'x') + "\",\"access_token\":\"big\"}"},
     Call::kRegister,
     kRegistered,
     "big"},
    // Status codes are never examined; the swapped message is deliberate.
    {"ServerErrorWithHtml",
     Behaviour::kAnswer,
     {500, "text/html", "<html><body>Oops</body></html>"},
     Call::kUserInfo,
     "QuorviaSDK: Failed to set user info: {\n    name = Ada;\n}"},
    {"RedirectLoop", Behaviour::kRedirectToSelf, {}, Call::kReply, kReplyFailed + "-1007"},
    // A name under ".invalid" never resolves.
    {"UnresolvableHost",
     Behaviour::kRefuse,
     {},
     Call::kRegister,
     kRegisterFailed + "-1003",
     "old",
     {},
     {},
     {},
     10.0,
     false,
     "http://quorvia-faults.invalid"},
    {"SelfSignedHttps",
     Behaviour::kAnswer,
     token("tls"),
     Call::kRegister,
     kRegistered,
     "tls",
     {},
     {},
     {},
     10.0,
     /*tls=*/true},
    // Nothing in a damaged store is deleted or overwritten.
    {"CorruptKeychainStore",
     Behaviour::kAnswer,
     token("new"),
     Call::kRegister,
     kRegistered,
     std::nullopt,
     [](ServiceFaultTest& t) {
       t.reopenKeychain();
       for (const char* suffix : {"", "-wal", "-shm"}) {
         fs::remove(t.keychainFile().string() + suffix);
       }
       writeFile(t.keychainFile(), kJunk);
       fs::permissions(t.keychainFile(), fs::perms::owner_read | fs::perms::owner_write);
     },
     {},
     [](ServiceFaultTest& t) {
       EXPECT_EQ(readFile(t.keychainFile()), kJunk);
       EXPECT_TRUE(t.logged("QuorviaSDK: keychain store " + t.keychainFile().string()));
     }},
    {"KeychainStoreOpenToOthers", Behaviour::kAnswer, token("new"), Call::kRegister, kRegistered,
     "old",
     [](ServiceFaultTest& t) {
       t.reopenKeychain();
       t.savedKeychain = readFile(t.keychainFile());
       fs::permissions(t.keychainFile(), fs::perms::group_read | fs::perms::others_read,
                       fs::perm_options::add);
     },
     [](ServiceFaultTest& t) {
       fs::permissions(t.keychainFile(), fs::perms::owner_read | fs::perms::owner_write);
     },
     [](ServiceFaultTest& t) {
       EXPECT_TRUE(t.logged("QuorviaSDK: keychain store " + t.keychainFile().string() +
                            " has mode 0644, open to group or others; refused until it is 0600"));
       EXPECT_EQ(readFile(t.keychainFile()), t.savedKeychain);
     }},
    {"CorruptUserDefaults",
     Behaviour::kAnswer,
     token("new"),
     Call::kRegister,
     kRegistered,
     "new",
     [](ServiceFaultTest& t) { writeFile(t.defaultsFile(), kJunk); },
     {},
     [](ServiceFaultTest& t) {
       EXPECT_TRUE(t.logged("QuorviaSDK: user defaults file " + t.defaultsFile().string() +
                            " is not a readable dictionary; moved to " + t.defaultsFile().string() +
                            ".corrupt and starting empty"));
       EXPECT_EQ(readFile(t.defaultsFile().string() + ".corrupt"), kJunk);
     }},
    {"ReadOnlyDataDirectory", Behaviour::kAnswer, token("new"), Call::kRegister, kRegistered, "old",
     [](ServiceFaultTest& t) {
       t.reopenKeychain();
       fs::permissions(t.dataDirectory(), fs::perms::owner_read | fs::perms::owner_exec);
       setFileCapabilities(false);
     },
     [](ServiceFaultTest& t) {
       setFileCapabilities(true);
       fs::permissions(t.dataDirectory(), fs::perms::owner_all);
     },
     // The stored token is still read (a rollback journal needs no file to
     // read); the new one cannot be written beside it.
     [](ServiceFaultTest& t) {
       EXPECT_TRUE(t.logged("QuorviaSDK: keychain store " + t.keychainFile().string() +
                            " update failed: attempt to write a readonly database"));
     }},
    // A write past the file size limit fails like a write to a full disk.
    {"DiskFull", Behaviour::kAnswer, token("new"), Call::kRegister, kRegistered, "old",
     [](ServiceFaultTest&) {
       std::signal(SIGXFSZ, SIG_IGN);
       rlimit limit{};
       ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &limit), 0);
       limit.rlim_cur = 1024;
       ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
     },
     [](ServiceFaultTest&) {
       rlimit limit{};
       ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &limit), 0);
       limit.rlim_cur = limit.rlim_max;
       ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
     },
     [](ServiceFaultTest& t) {
       EXPECT_TRUE(t.logged("QuorviaSDK: keychain store " + t.keychainFile().string() +
                            " update failed: disk I/O error"));
     }},
};

TEST_P(ServiceFaultTest, OutcomeIsPromisedAndTokenSurvives) {
  const FaultCase& c = GetParam();
  LoopbackServer server(c.server, c.tls);
  server.setReply(c.reply);
  const std::string base = c.address.empty() ? server.baseURL() : c.address;
  ASSERT_EQ(::setenv("QUORVIA_SERVICE_BASE_URL", base.c_str(), 1), 0);

  ASSERT_TRUE(LKKeychain::setPassword("old", kService, kAccount));
  if (c.damage) c.damage(*this);
  if (HasFatalFailure()) return;

  log_.clear();
  makeCall(c.call);
  const bool done =
      loop_->runUntil([&] { return logged(c.outcome); }, platform::seconds(c.timeout + 20));
  drain();
  if (c.heal) c.heal(*this);

  EXPECT_TRUE(done) << "no \"" << c.outcome << "\" in:\n" << ::testing::PrintToString(log_.lines());
  EXPECT_EQ(LKKeychain::passwordForService(kService, kAccount), c.tokenAfter);
  if (c.check) c.check(*this);
}

void PrintTo(const FaultCase& c, std::ostream* os) { *os << c.name; }

INSTANTIATE_TEST_SUITE_P(Faults, ServiceFaultTest, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace quorvia::testing
