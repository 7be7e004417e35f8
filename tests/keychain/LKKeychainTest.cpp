// The credential layer over each item store (in memory, the SQLite file, and
// the desktop's keyring: a real gnome-keyring-daemon on a private bus),
// wrapped to record and fail keychain calls.

#include <gtest/gtest.h>

#include <thread>

#include "keychain/LKKeychain.h"
#include "platform/Device.h"
#include "support/FaultInjectingKeychainStore.h"
#include "platform/KeychainStore.h"
#include "platform/Localization.h"
#include "platform/keychain/SecretServiceKeychainStore.h"
#include "support/KeyringDaemon.h"
#include "support/PlatformTest.h"

namespace quorvia {
namespace {

using platform::Bytes;
using platform::Error;
using platform::Value;
using Op = platform::FaultInjectingKeychainStore::Operation;

enum class Store { kInMemory, kDurable, kKeyring };

class LKKeychainTest : public testing::PlatformTest, public ::testing::WithParamInterface<Store> {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    std::shared_ptr<platform::KeychainStore> store;
    switch (GetParam()) {
      case Store::kInMemory:
        store = platform::makeInMemoryKeychainStore();
        break;
      case Store::kDurable:
        store = platform::makeSQLiteKeychainStore(platform::dataDirectory());
        break;
      case Store::kKeyring:
        keyring_ = std::make_unique<testing::KeyringDaemon>(dataDir_ / "keyring");
        ASSERT_TRUE(keyring_->ready) << "gnome-keyring-daemon did not start";
        ::setenv("DBUS_SESSION_BUS_ADDRESS", keyring_->bus.address.c_str(), 1);
        // Limits for a loaded machine: these tables are about answers, not time.
        store = platform::makeSecretServiceKeychainStore(
            "quorvia-test",
            {std::chrono::seconds(5), std::chrono::seconds(5), std::chrono::seconds(10)});
        break;
    }
    store_ = std::make_shared<platform::FaultInjectingKeychainStore>(store);
    env_->setKeychainStore(store_);
  }
  void TearDown() override {
    env_->setKeychainStore(nullptr);
    store_.reset();  // ends the keyring's thread before its daemon
    PlatformTest::TearDown();
  }
  static LKKeychainQuery tokenQuery(
      LKKeychainQuerySynchronizationMode mode = LKKeychainQuerySynchronizationModeAny,
      const char* password = nullptr) {
    LKKeychainQuery query;
    query.setService("polls");
    query.setAccount("user_token");
    query.setSynchronizationMode(mode);
    if (password) query.setPassword(password);
    return query;
  }

  std::unique_ptr<testing::KeyringDaemon> keyring_;
  std::shared_ptr<platform::FaultInjectingKeychainStore> store_;
};

// A second save updates the one item: password and modification date change,
// the label and creation date stay, and a listing never carries the secret. The
// accessibility type is given to added and updated items and narrows listings,
// never reads.
TEST_P(LKKeychainTest, SecondSaveUpdatesTheOneItemAndListingShowsItsAttributes) {
  EXPECT_EQ(LKKeychain::accessibilityType(), std::nullopt);
  auto query = tokenQuery(LKKeychainQuerySynchronizationModeAny, "one");
  query.setLabel("original");
  ASSERT_TRUE(query.save());
  advanceWallClock(90);
  LKKeychain::setAccessibilityType(platform::kSecAttrAccessibleAfterFirstUnlock);
  query.setLabel("renamed");
  query.setPassword("two");
  ASSERT_TRUE(query.save());
  ASSERT_TRUE(LKKeychain::setPassword("x", "other", "someone"));

  EXPECT_EQ(LKKeychain::passwordForService("polls", "user_token"), "two");
  const auto polls = LKKeychain::accountsForService("polls");
  ASSERT_TRUE(polls && polls->size() == 1);
  const Value& item = (*polls)[0];
  EXPECT_EQ(item[kLKKeychainWhereKey], "polls");
  EXPECT_EQ(item[kLKKeychainAccountKey], "user_token");
  EXPECT_EQ(item[kLKKeychainLabelKey], "original");
  EXPECT_EQ(item[kLKKeychainCreatedAtKey].get<double>(), 1795262400.0);
  EXPECT_EQ(item[kLKKeychainLastModifiedKey].get<double>(), 1795262490.0);
  EXPECT_FALSE(item.contains("v_Data"));
  const auto all = LKKeychain::allAccounts();
  ASSERT_TRUE(all && all->size() == 2);
  for (const auto& each : *all) EXPECT_EQ(each["pdmn"], "ck") << each.dump();
  LKKeychain::setAccessibilityType(platform::kSecAttrAccessibleAlways);
  EXPECT_EQ(LKKeychain::allAccounts(), std::nullopt);
  EXPECT_EQ(LKKeychain::passwordForService("polls", "user_token"), "two");
}

// Missing arguments are refused before any keychain call; absent items are
// not found, in the host's words when it has a strings table for them.
TEST_P(LKKeychainTest, FailedCallsGiveNilAndTheirCode) {
  constexpr int kBadArguments = -1001, kNotFound = -25300;
  const std::optional<std::string> nil;
  struct Case {
    std::optional<std::string> service, account, password;
    int readCode;  // saving always has a missing argument
  };
  const Case cases[] = {
      {nil, "a", "p", kBadArguments}, {"s", nil, "p", kBadArguments}, {"s", "a", nil, kNotFound}};
  for (const auto& c : cases) {
    SCOPED_TRACE(platform::describe(c.service) + " " + platform::describe(c.account));
    Error read, data, erase, save;
    EXPECT_FALSE(LKKeychain::passwordForService(c.service, c.account, &read));
    EXPECT_FALSE(LKKeychain::passwordDataForService(c.service, c.account, &data));
    EXPECT_FALSE(LKKeychain::deletePasswordForService(c.service, c.account, nullptr));
    EXPECT_FALSE(LKKeychain::deletePasswordForService(c.service, c.account, &erase));
    const auto calls = store_->calls().size();
    EXPECT_FALSE(LKKeychain::setPassword(c.password, c.service, c.account, &save));
    EXPECT_EQ(store_->calls().size(), calls);
    for (const Error& e : {read, data, erase}) EXPECT_EQ(e.code, c.readCode);
    EXPECT_EQ(read.domain, "com.lockwell.lkkeychain");
    EXPECT_EQ(read.localizedDescription(),
              c.readCode == kNotFound ? "errSecItemNotFound" : "LKKeychainErrorBadArguments");
    EXPECT_EQ(save.code, kBadArguments);
  }
  EXPECT_EQ(store_->calls().size(), 4u) << "only the calls on an absent item reach the store";
  Error error;
  EXPECT_FALSE(LKKeychain::setPasswordData(std::nullopt, "s", "a", &error));
  EXPECT_EQ(error.code, kBadArguments);
  env_->setLocalizedStringTable("LKKeychain", {{"errSecItemNotFound", "No such item."}});
  EXPECT_FALSE(LKKeychain::accountsForService("polls", &error));
  EXPECT_EQ(error.code, kNotFound);
  EXPECT_EQ(error.localizedDescription(), "No such item.");
}

// A password is UTF-8 text, an object is an archive: data that is neither
// reads back as nil, empty data as no password at all.
TEST_P(LKKeychainTest, PasswordViewsRoundTripOrGiveNil) {
  auto query = tokenQuery();
  const Value object = {
      {"token", "abc"}, {"none", nullptr}, {"raw", platform::dataValue({0, 255})}};
  query.setPasswordObject(object);
  ASSERT_TRUE(query.save());
  ASSERT_TRUE(query.fetch());
  EXPECT_EQ(query.passwordObject(), object);
  EXPECT_EQ(query.password(), std::nullopt);

  ASSERT_TRUE(LKKeychain::setPassword("p\xC3\xA4ss", "polls", "user_token"));  // "päss"
  EXPECT_EQ(LKKeychain::passwordDataForService("polls", "user_token"),
            (Bytes{'p', 0xC3, 0xA4, 's', 's'}));
  ASSERT_TRUE(query.fetch());
  EXPECT_EQ(query.passwordObject(), std::nullopt);

  ASSERT_TRUE(LKKeychain::setPasswordData(Bytes{}, "polls", "user_token"));
  EXPECT_EQ(LKKeychain::passwordDataForService("polls", "user_token"), Bytes{});
  EXPECT_EQ(LKKeychain::passwordForService("polls", "user_token"), std::nullopt);
}

// A synchronized and a local item of one account are two items; each mode
// reaches its own, "any" reaches both. So is an item of another access group.
TEST_P(LKKeychainTest, SynchronizationModesMatchTheirItems) {
  const std::pair<LKKeychainQuerySynchronizationMode, const char*> items[] = {
      {LKKeychainQuerySynchronizationModeYes, "synced"},
      {LKKeychainQuerySynchronizationModeNo, "local"}};
  for (const auto& [mode, password] : items) ASSERT_TRUE(tokenQuery(mode, password).save());
  for (const auto& [mode, password] : items) {
    auto query = tokenQuery(mode);
    ASSERT_TRUE(query.fetch());
    EXPECT_EQ(query.password(), password);
    EXPECT_EQ(query.fetchAll()->size(), 1u);
  }
  EXPECT_EQ(tokenQuery().fetchAll()->size(), 2u);
  auto grouped = tokenQuery(LKKeychainQuerySynchronizationModeNo, "shared");
  grouped.setAccessGroup("team.shared");
  ASSERT_TRUE(grouped.save());
  EXPECT_EQ(tokenQuery().fetchAll()->size(), 3u) << "another group's item is another item";
}

// A locked device fails the lookup that starts a save: nothing is written.
TEST_P(LKKeychainTest, FailedStepStopsTheSaveWithItsCode) {
  ASSERT_TRUE(LKKeychain::setPassword("before", "polls", "user_token"));
  store_->failCall(Op::kCopyMatching, platform::errSecInteractionNotAllowed);
  Error error;
  EXPECT_FALSE(LKKeychain::setPassword("after", "polls", "user_token", &error));
  EXPECT_EQ(error.code, -25308);
  EXPECT_EQ(error.localizedDescription(), "errSecInteractionNotAllowed");

  store_->failAlways(Op::kUpdate, -12345);
  EXPECT_FALSE(LKKeychain::setPassword("after", "polls", "user_token", &error));
  EXPECT_EQ(error.code, -12345);
  EXPECT_EQ(error.localizedDescription(), "errSecDefault") << "a status without its own key";
  store_->clearFaults();
  EXPECT_EQ(LKKeychain::passwordForService("polls", "user_token"), "before");
  EXPECT_EQ(LKKeychain::allAccounts()->size(), 1u);
}

TEST_P(LKKeychainTest, ConcurrentCallsFromTwoThreadsStayConsistent) {
  // Two first saves of "shared" may both find it missing and race to add;
  // the loser's duplicate-item failure is the item store's answer, not a fault.
  auto worker = [](const std::string& account, bool* allOk) {
    for (int i = 0; i < 40; ++i) {
      const std::string password = account + std::to_string(i);
      *allOk = LKKeychain::setPassword(password, "polls", account) && *allOk;
      *allOk = LKKeychain::passwordForService("polls", account) == password && *allOk;
      LKKeychain::setPassword(password, "polls", "shared");
    }
  };
  bool ok1 = true, ok2 = true;
  { std::jthread t1(worker, "one", &ok1), t2(worker, "two", &ok2); }  // both joined
  EXPECT_TRUE(ok1 && ok2);
  const auto shared = LKKeychain::passwordForService("polls", "shared");
  EXPECT_TRUE(shared == "one39" || shared == "two39") << platform::describe(shared);
  EXPECT_EQ(LKKeychain::allAccounts()->size(), 3u);
}

const char* nameOf(Store store) {
  constexpr const char* kNames[] = {"InMemory", "Durable", "Keyring"};
  return kNames[static_cast<int>(store)];
}
void PrintTo(Store store, std::ostream* out) { *out << nameOf(store); }

INSTANTIATE_TEST_SUITE_P(Stores, LKKeychainTest,
                         ::testing::Values(Store::kInMemory, Store::kDurable, Store::kKeyring),
                         [](const auto& info) { return std::string(nameOf(info.param)); });

}  // namespace
}  // namespace quorvia
