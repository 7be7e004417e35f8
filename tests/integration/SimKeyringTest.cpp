// Where the real simulator keeps the access token the real service hands out:
// in the desktop's keyring (a real gnome-keyring-daemon on a private bus),
// where another client finds it, or in the data directory's file when no
// keyring answers; and a token an earlier release kept in the file moves into
// the keyring and still authorises the next reply.
#include <filesystem>
#include <fstream>
#include <iterator>

#include "integration/ToolProcess.h"
#include "support/KeyringDaemon.h"
#include "tools/DevServerFixture.h"

namespace quorvia::testing {
namespace {

namespace fs = std::filesystem;
using devserver::testing::json;
using Json = ToolProcess::Json;

constexpr const char* kApp = "keyring-app";
constexpr const char* kDevice = "00aa11bb22";

// The data directory's files that hold `text`.
std::vector<fs::path> filesHolding(const fs::path& dir, const std::string& text) {
  std::vector<fs::path> found;
  for (const auto& entry : fs::recursive_directory_iterator(dir)) {
    std::ifstream in(entry.path(), std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(in), {});
    if (entry.is_regular_file() && bytes.find(text) != std::string::npos) {
      found.push_back(entry.path());
    }
  }
  return found;
}

class SimKeyringTest : public devserver::testing::DevServerTest {
 protected:
  void SetUp() override {
    DevServerTest::SetUp();
    keyring_ = std::make_unique<KeyringDaemon>(directory_ / "keyring");
    ASSERT_TRUE(keyring_->ready) << "gnome-keyring-daemon did not start";
    data_ = directory_ / "sim-data";
    fs::create_directories(data_);
  }
  void TearDown() override {
    finish();
    keyring_.reset();
    DevServerTest::TearDown();
  }

  // A simulator on `data_` that keeps items where `keychain` says, on `bus`.
  void start(const std::string& keychain, const std::string& bus) {
    finish();
    sim_ = std::make_unique<ToolProcess>(
        std::vector<std::string>{QUORVIA_SIM_PATH, "--data-dir", data_.string(), "--keychain",
                                 keychain},
        std::vector<std::string>{
            "QUORVIA_SERVICE_BASE_URL=http://127.0.0.1:" + std::to_string(port_),
            "DBUS_SESSION_BUS_ADDRESS=" + bus});
    sim_->send({{"cmd", "launch"}, {"appToken", kApp}, {"launchOptions", nullptr}});
  }
  void finish() {
    if (!sim_) return;
    EXPECT_EQ(sim_->finish(), 0);
    EXPECT_TRUE(sim_->eventsNamed("error").empty()) << sim_->output();
    sim_.reset();
  }
  // Registers the device; the access token the simulator then holds.
  std::string registerDevice() {
    sim_->send({{"cmd", "deviceToken"}, {"hex", kDevice}});
    EXPECT_TRUE(sim_->waitForLog("QuorviaSDK: Successfully registered device push token."));
    const Json token = sim_->state()["accessToken"];
    return token.is_string() ? token.get<std::string>() : "";
  }
  // A poll fetched as the app becomes active and answered: the service
  // records the reply only with the device's access token.
  void replyIsAuthorised(const std::string& question) {
    const json poll = createPoll(kApp, question, {{{"text", "Yes"}}, {{"text", "No"}}});
    sim_->send({{"cmd", "becomeActive"}});
    ASSERT_TRUE(sim_->waitForLog("QuorviaSDK: Presenting poll: " + question));
    sim_->state(0.4);  // the slide-in
    sim_->send({{"cmd", "tapCard"}});
    sim_->state(0.4);
    sim_->send({{"cmd", "tapOption"}, {"index", 0}});
    ASSERT_TRUE(sim_->waitForLog("QuorviaSDK: Successfuly sent reply: Yes"));
    const json replies = adminGet("/admin/polls/" + poll["id"].dump() + "/replies")["replies"];
    ASSERT_EQ(replies.size(), 1u) << replies.dump();
    EXPECT_EQ(replies[0]["device"]["push_token"], kDevice);
  }
  std::string keyringToken() const {
    std::string output;
    keyring_->run(
        {"secret-tool", "lookup", "app", "quorvia-sim", "svce", "polls", "acct", "user_token"},
        &output);
    return output;
  }

  std::unique_ptr<KeyringDaemon> keyring_;
  std::unique_ptr<ToolProcess> sim_;
  fs::path data_;  // the simulator's data directory
};

// With a keyring on the session bus the token lives there alone, and
// secret-tool reads it under the SDK's schema; with none, the file keeps it as
// before. Either way one line says where, and replies carry the token.
TEST_F(SimKeyringTest, TokenLivesInTheKeyringWhenOneAnswersAndInTheFileOtherwise) {
  PrivateBus bare(directory_ / "bare-bus");
  ASSERT_FALSE(bare.address.empty());
  const fs::path file = data_ / "keychain.sqlite";
  const struct {
    std::string name, bus, line;
    bool inKeyring;
  } cases[] = {
      // First: the keyring is still empty.
      {"no keyring", bare.address,
       "QuorviaSDK: keychain items are kept in " + file.string() +
           ", since no Secret Service (org.freedesktop.secrets) is running on the session bus or "
           "can be started there",
       false},
      {"keyring", keyring_->bus.address,
       "QuorviaSDK: keychain items are kept in the desktop's keyring (the Secret Service on the "
       "session bus)",
       true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(data_);
    fs::create_directories(data_);
    start("automatic", c.bus);
    const std::string token = registerDevice();
    ASSERT_FALSE(token.empty());
    ASSERT_TRUE(sim_->waitForLog(c.line));
    EXPECT_EQ(keyringToken(), c.inKeyring ? token : "");
    EXPECT_EQ(filesHolding(data_, token).empty(), c.inKeyring);
    EXPECT_EQ(fs::exists(file), !c.inKeyring);
    ASSERT_NO_FATAL_FAILURE(replyIsAuthorised("Keep it where? " + c.name));
  }
}

// A token an earlier release kept in the file moves into the keyring at the
// first keychain call, the file goes, and the next reply, without a new
// registration, is authorised by it.
TEST_F(SimKeyringTest, TokenOfAnEarlierReleaseMovesIntoTheKeyringAndStillAuthorises) {
  start("file", keyring_->bus.address);
  const std::string token = registerDevice();
  ASSERT_FALSE(token.empty());
  finish();
  ASSERT_FALSE(filesHolding(data_, token).empty());

  start("automatic", keyring_->bus.address);
  EXPECT_EQ(sim_->state()["accessToken"], token);
  ASSERT_TRUE(sim_->waitForLog("QuorviaSDK: moved 1 keychain item(s) from " +
                               (data_ / "keychain.sqlite").string() +
                               " into the Secret Service; the file is removed"));
  EXPECT_EQ(keyringToken(), token);
  EXPECT_TRUE(filesHolding(data_, token).empty());
  ASSERT_NO_FATAL_FAILURE(replyIsAuthorised("Moved along?"));
}

}  // namespace
}  // namespace quorvia::testing
