// The durable store on disk: file modes, refusal of an exposed or corrupt
// file, and what survives other processes and a kill -9.

#include <signal.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "keychain/LKKeychain.h"
#include "platform/Device.h"
#include "platform/KeychainStore.h"
#include "support/PlatformTest.h"

extern char** environ;

namespace quorvia {
namespace {

namespace fs = std::filesystem;
using platform::Error;
using platform::OSStatus;

// A running keychain_helper whose stdout the test reads line by line.
class Helper final {
 public:
  explicit Helper(std::vector<std::string> args) {
    args.insert(args.begin(), KEYCHAIN_HELPER_PATH);
    int fds[2];
    if (::pipe(fds) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    ::close(fds[1]);
    out_ = fds[0];
  }
  Helper(const Helper&) = delete;
  Helper& operator=(const Helper&) = delete;
  ~Helper() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      wait();
    }
    if (out_ >= 0) ::close(out_);
  }

  // Blocks until the helper writes a line (or exits).
  std::string readLine() {
    std::string line;
    char c;
    while (::read(out_, &c, 1) == 1 && c != '\n') line += c;
    return line;
  }

  int wait() {
    int status = 0;
    if (pid_ > 0 && ::waitpid(pid_, &status, 0) == pid_) pid_ = -1;
    return status;
  }

  void killNow() { ::kill(pid_, SIGKILL); }

 private:
  pid_t pid_ = -1;
  int out_ = -1;
};

std::string fileBytes(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

mode_t modeOf(const fs::path& path) {
  struct stat st {};
  ::stat(path.c_str(), &st);
  return st.st_mode & 0777;
}

class KeychainDurabilityTest : public testing::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    reopen();  // SQLite in dataDirectory(), closed when replaced
  }

  fs::path dir() const { return platform::dataDirectory(); }
  fs::path file() const { return dir() / platform::kKeychainStoreFileName; }

  // A fresh store object on the same directory, as a new process would open.
  void reopen() { env_->setKeychainStore(platform::makeSQLiteKeychainStore(dir())); }

  // Every kind of call fails with a non-zero code, none crashes.
  void expectEveryCallFails(OSStatus expected) {
    Error error;
    EXPECT_FALSE(LKKeychain::setPassword("s3cr3t-value", "polls", "user_token", &error));
    EXPECT_EQ(error.code, expected);
    error = {};
    EXPECT_EQ(LKKeychain::passwordForService("polls", "user_token", &error), std::nullopt);
    EXPECT_EQ(error.code, expected);
    error = {};
    EXPECT_FALSE(LKKeychain::deletePasswordForService("polls", "user_token", &error));
    EXPECT_EQ(error.code, expected);
    error = {};
    EXPECT_EQ(LKKeychain::allAccounts(&error), std::nullopt);
    EXPECT_EQ(error.code, expected);
    for (const auto& line : log_.lines()) {
      EXPECT_EQ(line.find("s3cr3t"), std::string::npos) << line;
    }
  }
};

TEST_F(KeychainDurabilityTest, StoreIsPrivateToItsUser) {
  ASSERT_FALSE(fs::exists(dir()));
  ASSERT_TRUE(LKKeychain::setPassword("tok", "polls", "user_token"));
  EXPECT_EQ(modeOf(dir()), 0700u);
  EXPECT_EQ(modeOf(file()), 0600u);
  for (const char* side : {"-wal", "-shm"}) {
    const fs::path p = file().string() + side;
    if (fs::exists(p)) {
      EXPECT_EQ(modeOf(p), 0600u) << p;
    }
  }
}

TEST_F(KeychainDurabilityTest, ExposedStoreFileIsRefusedAndLeftAlone) {
  ASSERT_TRUE(LKKeychain::setPassword("s3cr3t-value", "polls", "user_token"));
  env_->setKeychainStore(platform::makeInMemoryKeychainStore());  // closes the file
  const std::string before = fileBytes(file());
  for (mode_t mode : {0640, 0604, 0660, 0666, 0610}) {
    SCOPED_TRACE(mode);
    log_.clear();
    ASSERT_EQ(::chmod(file().c_str(), mode), 0);
    reopen();
    expectEveryCallFails(platform::errSecNotAvailable);
    const auto lines = log_.lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(lines.front().find("open to group or others; refused"), std::string::npos)
        << lines.front();
    EXPECT_EQ(modeOf(file()), mode);
    EXPECT_EQ(fileBytes(file()), before);
  }
  ASSERT_EQ(::chmod(file().c_str(), 0600), 0);
  reopen();
  EXPECT_EQ(LKKeychain::passwordForService("polls", "user_token"), "s3cr3t-value");
}

TEST_F(KeychainDurabilityTest, CorruptStoreFileGivesErrorsAndStaysUntouched) {
  ASSERT_TRUE(platform::createPrivateDirectory(dir()));
  // A real store whose items page is overwritten, and files that never were one.
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(LKKeychain::setPassword("pw", "polls", "acct" + std::to_string(i)));
  }
  env_->setKeychainStore(platform::makeInMemoryKeychainStore());
  std::string damaged = fileBytes(file());
  ASSERT_GE(damaged.size(), 3 * 4096u);
  std::fill(damaged.begin() + 4096, damaged.begin() + 2 * 4096, '\xA5');

  const std::vector<std::pair<std::string, std::string>> cases = {
      {"garbage", std::string(4096, '\x5A')},
      {"text", "this is not an item store\n"},
      {"bad header", std::string("SQLite format 3\0", 16) + std::string(2000, '\x01')},
      {"damaged items page", damaged},
  };
  for (const auto& [name, contents] : cases) {
    SCOPED_TRACE(name);
    log_.clear();
    {
      std::ofstream out(file(), std::ios::binary | std::ios::trunc);
      out << contents;
    }
    ASSERT_EQ(::chmod(file().c_str(), 0600), 0);
    reopen();
    expectEveryCallFails(platform::errSecDecode);
    EXPECT_FALSE(log_.lines().empty());
    EXPECT_EQ(fileBytes(file()), contents);
    env_->setKeychainStore(platform::makeInMemoryKeychainStore());
  }
}

TEST_F(KeychainDurabilityTest, UnusableStorePathGivesErrors) {
  ASSERT_TRUE(fs::create_directories(file()));  // a directory where the file belongs
  reopen();
  expectEveryCallFails(platform::errSecNotAvailable);
  EXPECT_TRUE(fs::is_directory(file()));
}

TEST_F(KeychainDurabilityTest, SavedPasswordIsReadByAnotherProcess) {
  Helper writer({dir().string(), "save", "polls", "user_token", "from-child"});
  EXPECT_EQ(writer.readLine(), "saved");
  EXPECT_EQ(WEXITSTATUS(writer.wait()), 0);

  Helper reader({dir().string(), "read", "polls", "user_token"});
  EXPECT_EQ(reader.readLine(), "password from-child");
  reader.wait();

  ASSERT_TRUE(LKKeychain::setPassword("from-parent", "polls", "user_token"));
  Helper again({dir().string(), "read", "polls", "user_token"});
  EXPECT_EQ(again.readLine(), "password from-parent");
}

TEST_F(KeychainDurabilityTest, SaveSurvivesKillRightAfterItReturns) {
  // The first round adds the item, the later ones update it.
  for (const char* password : {"first", "second", "third"}) {
    SCOPED_TRACE(password);
    Helper child({dir().string(), "save-and-wait", "polls", "user_token", password});
    ASSERT_EQ(child.readLine(), "saved");
    child.killNow();
    const int status = child.wait();
    ASSERT_TRUE(WIFSIGNALED(status));
    reopen();
    EXPECT_EQ(LKKeychain::passwordForService("polls", "user_token"), password);
  }
}

TEST_F(KeychainDurabilityTest, TwoProcessesSavingAtOnceLoseNothing) {
  ASSERT_TRUE(LKKeychain::setPassword("x", "polls", "warmup"));
  Helper a({dir().string(), "save-many", "a", "40"});
  Helper b({dir().string(), "save-many", "b", "40"});
  EXPECT_EQ(a.readLine(), "failures 0");
  EXPECT_EQ(b.readLine(), "failures 0");
  a.wait();
  b.wait();
  reopen();
  auto items = LKKeychain::accountsForService("polls");
  ASSERT_TRUE(items);
  EXPECT_EQ(items->size(), 81u);

  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open_v2(file().c_str(), &db, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
  sqlite3_stmt* check = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &check, nullptr), SQLITE_OK);
  ASSERT_EQ(sqlite3_step(check), SQLITE_ROW);
  EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(check, 0)), "ok");
  sqlite3_finalize(check);
  sqlite3_close(db);
}

}  // namespace
}  // namespace quorvia
