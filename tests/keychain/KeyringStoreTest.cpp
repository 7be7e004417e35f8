// The desktop's keyring as the keychain store: a real gnome-keyring-daemon on
// a private bus, read by another client, failing in bounded time when locked,
// silent or gone, chosen automatically, and taking over the file store's items.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "keychain/LKKeychain.h"
#include "platform/Device.h"
#include "platform/KeychainStore.h"
#include "platform/keychain/SecretServiceKeychainStore.h"
#include "support/KeyringDaemon.h"
#include "support/PlatformTest.h"

namespace quorvia {
namespace {

namespace fs = std::filesystem;
using platform::Error;
using Storage = platform::DesktopEnvironmentOptions::KeychainStorage;
using std::chrono::milliseconds;

constexpr const char* kApp = "quorvia-test";
// Far above every limit of the store, far below a hang.
constexpr milliseconds kNoHang{2000};
// Limits for a loaded machine (sanitizers, parallel tests) where a test is
// about answers, not time; a silent daemon still fails a call in 250 ms.
const platform::SecretServiceLimits kPatient{milliseconds(250), std::chrono::seconds(5),
                                             std::chrono::seconds(10)};

std::string fileBytes(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

class KeyringStoreTest : public testing::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    keyring_ = std::make_unique<testing::KeyringDaemon>(dataDir_ / "keyring");
    ASSERT_TRUE(keyring_->ready) << "gnome-keyring-daemon did not start";
    ::setenv("DBUS_SESSION_BUS_ADDRESS", keyring_->bus.address.c_str(), 1);
  }
  void TearDown() override {
    env_->setKeychainStore(nullptr);  // ends the keyring thread before the daemon
    PlatformTest::TearDown();
  }

  // The keyring store of the app, with limits for a loaded machine.
  static std::shared_ptr<platform::SecretServiceKeychainStore> keyringStore(
      const std::string& app = kApp) {
    return platform::makeSecretServiceKeychainStore(app, kPatient);
  }
  // The files of the data directory that hold `text`.
  static std::vector<fs::path> filesHolding(const std::string& text) {
    std::vector<fs::path> found;
    const fs::path dir = platform::dataDirectory();
    if (!fs::exists(dir)) return found;
    for (const auto& entry : fs::recursive_directory_iterator(dir)) {
      if (entry.is_regular_file() && fileBytes(entry.path()).find(text) != std::string::npos) {
        found.push_back(entry.path());
      }
    }
    return found;
  }
  std::string secretTool(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "secret-tool");
    std::string output;
    EXPECT_EQ(keyring_->run(std::move(arguments), &output), 0) << output;
    return output;
  }

  std::unique_ptr<testing::KeyringDaemon> keyring_;
};

// Another client of the keyring finds the token under the SDK's schema and the
// app's identifier, labelled for a person; another app, or an item of the same
// service and account outside the schema, is never seen. Nothing of it is in
// the data directory.
TEST_F(KeyringStoreTest, AnotherClientReadsTheItemsAndAnotherAppNeverSeesThem) {
  env_->setKeychainStore(keyringStore());
  ASSERT_TRUE(LKKeychain::setPassword("s3cr3t-token", "polls", "user_token"));
  LKKeychainQuery mail;
  mail.setService("mail");
  mail.setAccount("me@example.com");
  mail.setLabel("Mail password");
  mail.setPasswordData(platform::Bytes{0, 1, 0xfe});
  ASSERT_TRUE(mail.save());

  const std::string found = secretTool({"search", "--all", "app", kApp});
  for (const char* line :
       {"label = quorvia-test: poll service access token (Quorvia SDK)",
        "label = quorvia-test: Mail password (Quorvia SDK)", "secret = s3cr3t-token",
        "schema = com.quorvia.sdk.GenericPassword", "attribute.svce = polls",
        "attribute.acct = user_token", "attribute.labl = Mail password", "attribute.sync = 0",
        "attribute.pdmn = ak", "attribute.cdat = 1795262400", "attribute.class = genp"}) {
    EXPECT_NE(found.find(line), std::string::npos) << line << " in\n" << found;
  }
  EXPECT_EQ(secretTool({"lookup", "app", kApp, "svce", "polls", "acct", "user_token"}),
            "s3cr3t-token");
  EXPECT_TRUE(filesHolding("s3cr3t-token").empty());
  EXPECT_FALSE(fs::exists(platform::dataDirectory() / platform::kKeychainStoreFileName));

  // The app's attributes on an item of another schema (one more attribute, so
  // that the keyring does not take it for a replacement of ours).
  ASSERT_EQ(keyring_->run({"secret-tool", "store", "--label=not ours", "app", kApp, "class", "genp",
                           "svce", "polls", "acct", "user_token", "origin", "elsewhere"},
                          nullptr, "foreign"),
            0);
  env_->setKeychainStore(keyringStore("another-app"));
  Error error;
  EXPECT_EQ(LKKeychain::passwordForService("polls", "user_token", &error), std::nullopt);
  EXPECT_EQ(error.code, -25300);
  EXPECT_EQ(LKKeychain::allAccounts(), std::nullopt);
  env_->setKeychainStore(keyringStore());
  EXPECT_EQ(LKKeychain::passwordForService("polls", "user_token"), "s3cr3t-token");
  EXPECT_EQ(LKKeychain::allAccounts()->size(), 2u);
}

// A locked keyring, a daemon that answers nothing (before or after the first
// contact) and a bus that goes away: every kind of call fails within its limit
// with errSecNotAvailable and one line, nothing prompts, the process lives,
// and once the fault is gone the next call reads the token.
TEST_F(KeyringStoreTest, LockedSilentOrLostKeyringFailsWithinItsLimitAndTheNextCallTriesAgain) {
  env_->setKeychainStore(keyringStore());
  ASSERT_TRUE(LKKeychain::setPassword("s3cr3t-token", "polls", "user_token"));
  auto documented = platform::makeSecretServiceKeychainStore(kApp);  // the documented limits
  ASSERT_TRUE(documented->open(nullptr));
  env_->setKeychainStore(documented);
  struct Case {
    std::string name;
    std::function<void()> fault, repair;  // no repair: the fault stays
    std::string line;                     // in every log line
    bool firstContact = false;            // a store that has not reached the keyring yet
  };
  const Case cases[] = {
      {"silent daemon", [&] { keyring_->pause(); }, [&] { keyring_->resume(); },
       "failed: the Secret Service did not answer within 10 ms (errSecNotAvailable)"},
      {"silent daemon at first contact", [&] { keyring_->pause(); }, [&] { keyring_->resume(); },
       "failed: the Secret Service did not answer within 500 ms (errSecNotAvailable)", true},
      {"locked keyring",
       [&] { ASSERT_TRUE(keyring_->lock()); },
       {},
       "failed: the keyring is locked, and the SDK never prompts to unlock it"},
      // Last: this process's connection to the session bus stays closed.
      {"bus gone", [&] { keyring_->bus.daemon.stop(); }, {}, "the session bus"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.firstContact) env_->setKeychainStore(platform::makeSecretServiceKeychainStore(kApp));
    c.fault();
    log_.clear();
    const std::function<bool(Error*)> calls[] = {
        [](Error* e) {
          return LKKeychain::passwordForService("polls", "user_token", e).has_value();
        },
        [](Error* e) { return LKKeychain::setPassword("s3cr3t-other", "polls", "user_token", e); },
        [](Error* e) { return LKKeychain::deletePasswordForService("polls", "user_token", e); },
        [](Error* e) { return LKKeychain::allAccounts(e).has_value(); }};
    for (const auto& call : calls) {
      Error error;
      const auto start = std::chrono::steady_clock::now();
      EXPECT_FALSE(call(&error));
      EXPECT_LT(std::chrono::steady_clock::now() - start, kNoHang);
      EXPECT_EQ(error.code, -25291);
      EXPECT_EQ(error.localizedDescription(), "errSecNotAvailable");
    }
    const auto lines = log_.lines();
    EXPECT_EQ(lines.size(), std::size(calls));
    for (const auto& line : lines) {
      EXPECT_NE(line.find(c.line), std::string::npos) << line;
      EXPECT_EQ(line.find("s3cr3t"), std::string::npos) << line;
    }
    if (c.repair) {
      c.repair();
      // Within a few calls: on a loaded machine one may still miss 10 ms.
      std::optional<std::string> token;
      for (int call = 0; call < 5 && !token; ++call) {
        token = LKKeychain::passwordForService("polls", "user_token");
      }
      EXPECT_EQ(token, "s3cr3t-token");
    }
  }
}

// Where no keyring answers, the automatic choice keeps items in the file of
// the data directory and says why in one line, without waiting long; the
// file store then works as it always did. Chosen explicitly, the file is used
// even with a keyring there.
TEST_F(KeyringStoreTest, AutomaticChoiceKeepsItemsInTheFileWhenNoKeyringAnswers) {
  testing::PrivateBus bare(dataDir_ / "bare-bus");
  ASSERT_FALSE(bare.address.empty());
  const testing::KeyringDaemon unset(dataDir_ / "unset-keyring", /*withLoginKeyring=*/false);
  ASSERT_TRUE(unset.ready);
  struct Case {
    std::string name;
    std::optional<std::string> bus;  // $DBUS_SESSION_BUS_ADDRESS; unset with $XDG_RUNTIME_DIR
    std::string why;
    Storage storage = Storage::kAutomatic;
  };
  const Case cases[] = {
      {"no session bus", std::nullopt, "there is no session bus"},
      {"a bus only dbus-launch would start", "autolaunch:", "there is no session bus"},
      {"a bus that is not there", "unix:path=" + (dataDir_ / "no-bus").string(),
       "the session bus cannot be reached"},
      {"a bus without a keyring", bare.address,
       "no Secret Service (org.freedesktop.secrets) is running on the session bus"},
      {"a keyring nobody has set up", unset.bus.address,
       "the keyring has no default collection to keep items in"},
      {"the file chosen", keyring_->bus.address, "", Storage::kFile},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.bus) {
      ::setenv("DBUS_SESSION_BUS_ADDRESS", c.bus->c_str(), 1);
    } else {
      ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
      ::unsetenv("XDG_RUNTIME_DIR");
    }
    const fs::path dir = dataDir_ / c.name;
    log_.clear();
    const auto start = std::chrono::steady_clock::now();
    env_->setKeychainStore(platform::makeDesktopKeychainStore(c.storage, dir, kApp, kPatient));
    EXPECT_LT(std::chrono::steady_clock::now() - start, kNoHang);
    const fs::path file = dir / platform::kKeychainStoreFileName;
    if (c.why.empty()) {
      EXPECT_TRUE(log_.lines().empty());
    } else {
      const auto lines = log_.lines();
      ASSERT_EQ(lines.size(), 1u);
      EXPECT_TRUE(lines[0].starts_with("QuorviaSDK: keychain items are kept in " + file.string() +
                                       ", since " + c.why))
          << lines[0];
    }
    ASSERT_TRUE(LKKeychain::setPassword("s3cr3t-token", "polls", "user_token"));
    EXPECT_EQ(LKKeychain::passwordForService("polls", "user_token"), "s3cr3t-token");
    EXPECT_NE(fileBytes(file).find("s3cr3t-token"), std::string::npos);
  }
}

// The automatic choice takes the keyring when one answers. Items an earlier
// release kept in the file move into it on the first call (a newer copy in
// the keyring stays), keeping their dates, and the file goes; while the
// keyring does not answer, they stay in the file and the next call tries
// again. The next start moves nothing.
TEST_F(KeyringStoreTest, FileItemsMoveIntoTheKeyringOnceWithNothingLostOrLeftInClear) {
  const fs::path dir = platform::dataDirectory();
  const fs::path file = dir / platform::kKeychainStoreFileName;
  const auto save = [](const std::string& service, const std::string& password) {
    return LKKeychain::setPassword(password, service, "me");
  };
  env_->setKeychainStore(keyringStore());
  ASSERT_TRUE(save("chat", "keyring-chat"));  // older than the file's
  advanceWallClock(10);
  env_->setKeychainStore(platform::makeSQLiteKeychainStore(dir));
  ASSERT_TRUE(LKKeychain::setPassword("token-from-file", "polls", "user_token"));
  ASSERT_TRUE(save("chat", "file-chat"));
  ASSERT_TRUE(save("mail", "file-mail"));
  advanceWallClock(10);
  env_->setKeychainStore(keyringStore());
  ASSERT_TRUE(save("mail", "keyring-mail"));  // newer than the file's

  auto chosen = platform::makeDesktopKeychainStore(Storage::kAutomatic, dir, kApp, kPatient);
  EXPECT_EQ(log_.lines().back(),
            "QuorviaSDK: keychain items are kept in the desktop's keyring (the Secret Service on "
            "the session bus)");
  env_->setKeychainStore(chosen);
  keyring_->pause();
  log_.clear();
  for (int i = 0; i < 2; ++i) {
    Error error;
    EXPECT_EQ(LKKeychain::passwordForService("polls", "user_token", &error), std::nullopt);
    EXPECT_EQ(error.code, -25291);
  }
  EXPECT_NE(fileBytes(file).find("token-from-file"), std::string::npos) << "still in the file";
  int notMoved = 0;
  for (const auto& line : log_.lines()) {
    notMoved += line.find("cannot be moved yet into the Secret Service") != std::string::npos;
  }
  EXPECT_EQ(notMoved, 1) << "said once";

  keyring_->resume();
  log_.clear();
  EXPECT_EQ(LKKeychain::passwordForService("polls", "user_token"), "token-from-file");
  EXPECT_EQ(log_.lines(),
            std::vector<std::string>{"QuorviaSDK: moved 3 keychain item(s) from " + file.string() +
                                     " into the Secret Service; the file is removed"});
  EXPECT_FALSE(fs::exists(file));
  for (const char* secret : {"token-from-file", "file-chat", "file-mail"}) {
    EXPECT_TRUE(filesHolding(secret).empty()) << secret;
  }
  EXPECT_EQ(LKKeychain::passwordForService("chat", "me"), "file-chat");
  EXPECT_EQ(LKKeychain::passwordForService("mail", "me"), "keyring-mail");
  const auto token = LKKeychain::accountsForService("polls");
  ASSERT_TRUE(token && token->size() == 1);
  EXPECT_EQ((*token)[0][kLKKeychainCreatedAtKey].get<double>(), 1795262410.0);

  log_.clear();
  env_->setKeychainStore(
      platform::makeDesktopKeychainStore(Storage::kAutomatic, dir, kApp, kPatient));
  EXPECT_EQ(LKKeychain::allAccounts()->size(), 3u);
  EXPECT_EQ(log_.lines().size(), 1u) << "which store, and nothing moved";
  EXPECT_FALSE(fs::exists(file));
}

// A file the file store refuses (open to others, or damaged) is not moved and
// stays byte for byte as it was, said once; the keyring works all the same.
TEST_F(KeyringStoreTest, FileThatCannotBeMovedStaysUntouchedAndTheKeyringWorks) {
  const fs::path dir = platform::dataDirectory();
  const fs::path file = dir / platform::kKeychainStoreFileName;
  env_->setKeychainStore(platform::makeSQLiteKeychainStore(dir));
  ASSERT_TRUE(LKKeychain::setPassword("token-from-file", "polls", "user_token"));
  env_->setKeychainStore(nullptr);
  const struct {
    std::string name;
    std::function<void()> spoil;
    int status;
  } cases[] = {
      {"open to others",
       [&] { fs::permissions(file, fs::perms::others_read, fs::perm_options::add); }, -25291},
      {"damaged",
       [&] {
         fs::permissions(file, fs::perms::others_read, fs::perm_options::remove);
         std::ofstream(file, std::ios::trunc) << "not an item store";
       },
       -26275},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    c.spoil();
    const std::string before = fileBytes(file);
    env_->setKeychainStore(
        platform::makeDesktopKeychainStore(Storage::kSecretService, dir, kApp, kPatient));
    log_.clear();
    for (int i = 0; i < 2; ++i) {
      ASSERT_TRUE(LKKeychain::setPassword("keyring-token", "polls", "user_token"));
      EXPECT_EQ(LKKeychain::passwordForService("polls", "user_token"), "keyring-token");
    }
    int said = 0;
    for (const auto& line : log_.lines()) {
      said += line == "QuorviaSDK: keychain items in " + file.string() +
                          " cannot be moved into the Secret Service (status " +
                          std::to_string(c.status) + "); they stay in the file, untouched";
    }
    EXPECT_EQ(said, 1);
    EXPECT_EQ(fileBytes(file), before);
  }
}

}  // namespace
}  // namespace quorvia
