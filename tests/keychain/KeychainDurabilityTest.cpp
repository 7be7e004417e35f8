// The durable store on disk: file modes, refusal of an exposed or corrupt
// file, and what other processes and a kill -9 see.

#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "keychain/LKKeychain.h"
#include "platform/Device.h"
#include "platform/KeychainStore.h"
#include "support/PlatformTest.h"

namespace quorvia {
namespace {

namespace fs = std::filesystem;
using platform::Error;
using platform::OSStatus;

// Another process: a fork that runs `work` on a store of its own and writes
// its answer on a pipe, then exits, or stays until killed when asked to. It is
// killed by its pid if still running when the test lets go of it.
class Child final {
 public:
  Child(platform::ConfigurableEnvironment& env, const std::function<std::string()>& work,
        bool stay = false) {
    int fds[2];
    if (::pipe(fds) != 0) return;
    env.setKeychainStore(platform::makeInMemoryKeychainStore());  // no connection crosses a fork
    pid_ = ::fork();
    if (pid_ == 0) {
      env.setKeychainStore(platform::makeSQLiteKeychainStore(platform::dataDirectory()));
      const std::string line = work() + "\n";
      if (::write(fds[1], line.data(), line.size()) < 0 || !stay) ::_exit(0);
      for (;;) ::pause();
    }
    ::close(fds[1]);
    out_ = fds[0];
  }
  ~Child() {
    kill();
    wait();
    ::close(out_);
  }
  // Blocks until the child has answered (or exited).
  std::string answer() {
    std::string line;
    for (char c; ::read(out_, &c, 1) == 1 && c != '\n';) line += c;
    return line;
  }
  void kill() {
    if (pid_ > 0) ::kill(pid_, SIGKILL);
  }
  int wait() {
    int status = 0;
    if (pid_ > 0 && ::waitpid(pid_, &status, 0) == pid_) pid_ = -1;
    return status;
  }

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

  fs::path journal() const { return file().string() + "-journal"; }
  fs::path wal() const { return file().string() + "-wal"; }

  // A fresh store object on the same directory, as a new process would open.
  void reopen() { env_->setKeychainStore(platform::makeSQLiteKeychainStore(dir())); }
  // Lets go of the store file.
  void close() { env_->setKeychainStore(platform::makeInMemoryKeychainStore()); }

  // Every kind of call fails with `expected`, none crashes nor logs the secret.
  void expectEveryCallFails(OSStatus expected) {
    Error errors[4];
    EXPECT_FALSE(LKKeychain::setPassword("s3cr3t-value", "polls", "user_token", &errors[0]));
    EXPECT_FALSE(LKKeychain::passwordForService("polls", "user_token", &errors[1]));
    EXPECT_FALSE(LKKeychain::deletePasswordForService("polls", "user_token", &errors[2]));
    EXPECT_FALSE(LKKeychain::allAccounts(&errors[3]));
    for (const auto& error : errors) EXPECT_EQ(error.code, expected);
    for (const auto& line : log_.lines()) EXPECT_EQ(line.find("s3cr3t"), std::string::npos);
  }
};

// What a call has committed is in the main file alone (a backup of it is
// complete), and what was deleted is nowhere on disk.
TEST_F(KeychainDurabilityTest, CommittedWritesLiveInTheMainFileAndDeletedOnesNowhere) {
  ASSERT_TRUE(LKKeychain::setPassword("kept-token", "polls", "user_token"));
  ASSERT_TRUE(LKKeychain::setPassword("s3cr3t-gone", "polls", "old"));
  ASSERT_TRUE(LKKeychain::setPassword("s3cr3t-replaced", "polls", "updated"));
  ASSERT_TRUE(LKKeychain::setPassword("new-value", "polls", "updated"));
  ASSERT_TRUE(LKKeychain::deletePasswordForService("polls", "old"));

  const fs::path backup = dataDir_ / "backup";
  fs::create_directories(backup);
  fs::copy_file(file(), backup / platform::kKeychainStoreFileName);
  for (const auto& entry : fs::directory_iterator(dir())) {
    EXPECT_EQ(entry.path().filename(), platform::kKeychainStoreFileName) << "no other file left";
    EXPECT_EQ(fileBytes(entry.path()).find("s3cr3t"), std::string::npos) << entry.path();
  }
  env_->setKeychainStore(platform::makeSQLiteKeychainStore(backup));
  EXPECT_EQ(LKKeychain::passwordForService("polls", "user_token"), "kept-token");
  EXPECT_EQ(LKKeychain::passwordForService("polls", "updated"), "new-value");
  EXPECT_EQ(LKKeychain::passwordForService("polls", "old"), std::nullopt);
}

// The store is made private to its user whatever the umask; once exposed to
// others it is refused, and left as it was.
TEST_F(KeychainDurabilityTest, StoreIsPrivateAndRefusedOnceExposed) {
  ::umask(022);
  ASSERT_TRUE(LKKeychain::setPassword("s3cr3t-value", "polls", "user_token"));
  EXPECT_EQ(modeOf(dir()), 0700u);
  for (const auto& entry : fs::directory_iterator(dir())) {
    EXPECT_EQ(modeOf(entry.path()), 0600u) << entry.path();
  }
  close();
  const std::string before = fileBytes(file());
  const std::string open = "open to group or others; refused";
  const std::string writable = "writable by group or others; refused";
  struct Case {
    fs::path path;  // the file or directory exposed; created empty when absent
    mode_t mode;
    std::string expectedLine;
    uid_t owner = ::geteuid();
  };
  std::vector<Case> cases = {
      {file(), 0640, open}, {file(), 0604, open},    {file(), 0660, open},
      {file(), 0666, open}, {file(), 0610, open},    {journal(), 0644, open},
      {wal(), 0666, open},  {dir(), 0777, writable}, {dir(), 0770, writable}};
  if (::geteuid() == 0) {  // only root can give a file away
    cases.push_back({journal(), 0600, "belongs to user 4242", 4242});
    cases.push_back({file(), 0600, "belongs to user 4242", 4242});
  }
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path.string() + " " + std::to_string(c.mode));
    log_.clear();
    const bool made = !fs::exists(c.path);
    if (made) std::ofstream(c.path).close();
    ASSERT_EQ(::chmod(c.path.c_str(), c.mode), 0);
    ASSERT_EQ(::chown(c.path.c_str(), c.owner, -1), 0);
    reopen();
    expectEveryCallFails(platform::errSecNotAvailable);
    const auto lines = log_.lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(lines[0].find(c.expectedLine), std::string::npos) << lines[0];
    EXPECT_EQ(modeOf(c.path), c.mode);
    EXPECT_EQ(fileBytes(file()), before);
    close();
    if (made) fs::remove(c.path);
    ASSERT_TRUE(made || ::chown(c.path.c_str(), ::geteuid(), -1) == 0);
    ASSERT_TRUE(made || ::chmod(c.path.c_str(), fs::is_directory(c.path) ? 0700 : 0600) == 0);
  }
  reopen();
  EXPECT_EQ(LKKeychain::passwordForService("polls", "user_token"), "s3cr3t-value");
}

TEST_F(KeychainDurabilityTest, DamagedStoreGivesErrorsAndStaysUntouched) {
  // A real store whose items page is overwritten, and files that never were one.
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(LKKeychain::setPassword("pw", "polls", "acct" + std::to_string(i)));
  }
  close();
  const std::string intact = fileBytes(file());
  ASSERT_GE(intact.size(), 3 * 4096u);
  std::string damaged = intact;
  std::fill(damaged.begin() + 4096, damaged.begin() + 2 * 4096, '\xA5');
  // A store file whose table never reached it (its contents were in a log
  // that is gone): a valid database without the items table.
  const fs::path other = dataDir_ / "tableless.sqlite";
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(other.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "PRAGMA user_version=1", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(db);
  const std::string tableless = fileBytes(other);

  struct Case {
    std::string name, contents;
    fs::path sidecar;  // empty: none
    std::string sidecarContents;
  };
  const std::vector<Case> cases = {
      {"garbage", std::string(4096, '\x5A')},
      {"text", "this is not an item store\n"},
      {"bad header", std::string("SQLite format 3\0", 16) + std::string(2000, '\x01')},
      {"damaged items page", damaged},
      {"empty main file", ""},
      {"main file without its table", tableless},
      {"damaged journal", intact, journal(), std::string(600, '\x33')},
      {"damaged log", tableless, wal(), std::string(5000, '\x44')},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    log_.clear();
    std::ofstream(file(), std::ios::binary | std::ios::trunc) << c.contents;
    if (!c.sidecar.empty()) {
      std::ofstream(c.sidecar, std::ios::binary | std::ios::trunc) << c.sidecarContents;
      ASSERT_EQ(::chmod(c.sidecar.c_str(), 0600), 0);
    }
    reopen();
    expectEveryCallFails(platform::errSecDecode);
    EXPECT_FALSE(log_.lines().empty());
    EXPECT_EQ(fileBytes(file()), c.contents);
    EXPECT_EQ(c.sidecar.empty() ? "" : fileBytes(c.sidecar), c.sidecarContents);
    close();
    if (!c.sidecar.empty()) fs::remove(c.sidecar);
  }
}

TEST_F(KeychainDurabilityTest, UnusableStorePathGivesErrors) {
  ASSERT_TRUE(fs::create_directories(file()));  // a directory where the file belongs
  reopen();
  expectEveryCallFails(platform::errSecNotAvailable);
  EXPECT_TRUE(fs::is_directory(file()));
}

// A save is on disk when the call returns: it survives the saving process
// being killed right after, and another process reads it.
TEST_F(KeychainDurabilityTest, SavesSurviveAKillAndAreReadByAnotherProcess) {
  const auto read = [] {
    return LKKeychain::passwordForService("polls", "user_token").value_or("");
  };
  for (const std::string password : {"first", "second", "third"}) {  // an add, then updates
    SCOPED_TRACE(password);
    Child saver(
        *env_,
        [&] { return LKKeychain::setPassword(password, "polls", "user_token") ? "saved" : ""; },
        /*stay=*/true);
    ASSERT_EQ(saver.answer(), "saved");
    saver.kill();
    ASSERT_TRUE(WIFSIGNALED(saver.wait()));
    reopen();
    EXPECT_EQ(read(), password);
    ASSERT_TRUE(LKKeychain::setPassword(password + "-parent", "polls", "user_token"));
    EXPECT_EQ(Child(*env_, read).answer(), password + "-parent");
    reopen();
  }
}

TEST_F(KeychainDurabilityTest, TwoProcessesSavingAtOnceLoseNothing) {
  ASSERT_TRUE(LKKeychain::setPassword("x", "polls", "warmup"));
  const auto saveMany = [](const std::string& prefix) {
    return [prefix] {
      int failures = 0;
      for (int i = 0; i < 40; ++i) {
        const std::string account = prefix + std::to_string(i);
        failures += !LKKeychain::setPassword("pw-" + account, "polls", account);
        failures += LKKeychain::passwordForService("polls", account) != "pw-" + account;
      }
      return "failures " + std::to_string(failures);
    };
  };
  Child a(*env_, saveMany("a")), b(*env_, saveMany("b"));
  EXPECT_EQ(a.answer(), "failures 0");
  EXPECT_EQ(b.answer(), "failures 0");
  a.wait();
  b.wait();
  reopen();
  EXPECT_EQ(LKKeychain::accountsForService("polls").value_or(platform::Value()).size(), 81u);

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
