// The credential layer over an in-memory store wrapped to record (and fail)
// every keychain call.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "keychain/LKKeychain.h"
#include "keychain/LKKeychainQuery.h"
#include "platform/FaultInjectingKeychainStore.h"
#include "platform/Localization.h"
#include "support/PlatformTest.h"

namespace quorvia {
namespace {

using platform::Bytes;
using platform::Error;
using platform::Value;
using Op = platform::FaultInjectingKeychainStore::Operation;

class LKKeychainTest : public testing::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    store_ = std::make_shared<platform::FaultInjectingKeychainStore>(
        platform::makeInMemoryKeychainStore());
    env_->setKeychainStore(store_);
  }

  std::vector<Op> operations() const {
    std::vector<Op> ops;
    for (const auto& call : store_->calls()) ops.push_back(call.operation);
    return ops;
  }

  std::shared_ptr<platform::FaultInjectingKeychainStore> store_;
};

TEST_F(LKKeychainTest, SaveTwiceUpdatesTheOneItem) {
  ASSERT_TRUE(LKKeychain::setPassword("first", "polls", "user_token"));
  ASSERT_TRUE(LKKeychain::setPassword("second", "polls", "user_token"));

  EXPECT_EQ(LKKeychain::passwordForService("polls", "user_token"), "second");
  auto accounts = LKKeychain::allAccounts();
  ASSERT_TRUE(accounts);
  EXPECT_EQ(accounts->size(), 1u);
  EXPECT_EQ(operations(), (std::vector<Op>{Op::kCopyMatching, Op::kAdd, Op::kCopyMatching,
                                           Op::kUpdate, Op::kCopyMatching, Op::kCopyMatching}));
}

TEST_F(LKKeychainTest, AbsentItemGivesNilAndItemNotFound) {
  Error error;
  EXPECT_EQ(LKKeychain::passwordForService("polls", "user_token", &error), std::nullopt);
  EXPECT_EQ(error.domain, "com.lockwell.lkkeychain");
  EXPECT_EQ(error.code, -25300);
  EXPECT_EQ(error.localizedDescription(), "errSecItemNotFound");
  EXPECT_EQ(LKKeychain::passwordDataForService("polls", "user_token"), std::nullopt);
  EXPECT_FALSE(LKKeychain::deletePasswordForService("polls", "user_token", &error));
  EXPECT_EQ(error.code, -25300);
  EXPECT_EQ(LKKeychain::accountsForService("polls", &error), std::nullopt);
  EXPECT_EQ(error.code, -25300);
}

TEST_F(LKKeychainTest, MissingArgumentsFailWithoutAnyKeychainCall) {
  const std::optional<std::string> nil;
  struct Case {
    const char* name;
    std::function<bool(Error*)> call;
  };
  const std::vector<Case> cases = {
      {"nil data", [](Error* e) { return LKKeychain::setPasswordData(std::nullopt, "s", "a", e); }},
      {"nil password", [&](Error* e) { return LKKeychain::setPassword(nil, "s", "a", e); }},
      {"save nil service", [&](Error* e) { return LKKeychain::setPassword("p", nil, "a", e); }},
      {"save nil account", [&](Error* e) { return LKKeychain::setPassword("p", "s", nil, e); }},
      {"read nil account",
       [&](Error* e) { return LKKeychain::passwordForService("s", nil, e).has_value(); }},
      {"read nil service",
       [&](Error* e) { return LKKeychain::passwordDataForService(nil, "a", e).has_value(); }},
      {"delete nil service",
       [&](Error* e) { return LKKeychain::deletePasswordForService(nil, "a", e); }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Error error;
    EXPECT_FALSE(c.call(&error));
    EXPECT_EQ(error.code, -1001);
    EXPECT_EQ(error.localizedDescription(), "LKKeychainErrorBadArguments");
    EXPECT_FALSE(c.call(nullptr));  // a nil slot is allowed
  }
  EXPECT_TRUE(store_->calls().empty());
}

TEST_F(LKKeychainTest, ErrorWithCodeMapsEachStatusToItsMessageKey) {
  const std::vector<std::pair<int, std::string>> cases = {
      {-1001, "LKKeychainErrorBadArguments"}, {-4, "errSecUnimplemented"},
      {-50, "errSecParam"},                   {-108, "errSecAllocate"},
      {-25291, "errSecNotAvailable"},         {-25293, "errSecAuthFailed"},
      {-25299, "errSecDuplicateItem"},        {-25300, "errSecItemNotFound"},
      {-25308, "errSecInteractionNotAllowed"}, {-26275, "errSecDecode"},
      {-1, "errSecDefault"},                  {1, "errSecDefault"},
      {-25301, "errSecDefault"},
  };
  for (const auto& [code, key] : cases) {
    SCOPED_TRACE(code);
    auto error = LKKeychainQuery::errorWithCode(code);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain, kLKKeychainErrorDomain);
    EXPECT_EQ(error->code, code);
    EXPECT_EQ(error->userInfo, (Value{{"NSLocalizedDescription", key}}));
  }
  EXPECT_EQ(LKKeychainQuery::errorWithCode(0), std::nullopt);

  // A host strings table named "LKKeychain" supplies the texts it has.
  env_->setLocalizedStringTable("LKKeychain", {{"errSecItemNotFound", "No such item."}});
  EXPECT_EQ(LKKeychainQuery::errorWithCode(-25300)->localizedDescription(), "No such item.");
  EXPECT_EQ(LKKeychainQuery::errorWithCode(-50)->localizedDescription(), "errSecParam");
}

TEST_F(LKKeychainTest, LabelIsWrittenOnlyWhenTheItemIsAdded) {
  LKKeychainQuery first;
  first.setService("polls");
  first.setAccount("user_token");
  first.setLabel("original");
  first.setPassword("one");
  ASSERT_TRUE(first.save());

  LKKeychainQuery second = first;
  second.setLabel("renamed");
  second.setPassword("two");
  ASSERT_TRUE(second.save());

  auto items = LKKeychain::accountsForService("polls");
  ASSERT_TRUE(items && items->size() == 1);
  EXPECT_EQ((*items)[0][kLKKeychainLabelKey], "original");
  EXPECT_EQ(LKKeychain::passwordForService("polls", "user_token"), "two");
  for (const auto& call : store_->calls()) {
    EXPECT_EQ(call.query.contains("labl"), call.operation == Op::kAdd);
    if (call.operation == Op::kUpdate) {
      EXPECT_FALSE(call.attributesToUpdate.contains("labl"));
    }
  }
}

TEST_F(LKKeychainTest, EmptyDataReadsBackAsNilPasswordAndObject) {
  ASSERT_TRUE(LKKeychain::setPasswordData(Bytes{}, "polls", "user_token"));
  LKKeychainQuery query;
  query.setService("polls");
  query.setAccount("user_token");
  ASSERT_TRUE(query.fetch());
  EXPECT_EQ(query.passwordData(), Bytes{});
  EXPECT_EQ(query.password(), std::nullopt);
  EXPECT_EQ(query.passwordObject(), std::nullopt);
  EXPECT_EQ(LKKeychain::passwordForService("polls", "user_token"), std::nullopt);
}

TEST_F(LKKeychainTest, PasswordViewsRoundTripTheirValues) {
  LKKeychainQuery query;
  query.setService("s");
  query.setAccount("a");
  const Value object = {{"token", "abc"}, {"n", 7}, {"x", 2.5}, {"none", nullptr},
                        {"raw", platform::dataValue({0, 255})}};
  query.setPasswordObject(object);
  ASSERT_TRUE(query.save());
  query.setPasswordData(std::nullopt);
  ASSERT_TRUE(query.fetch());
  EXPECT_EQ(query.passwordObject(), object);

  query.setPassword("p\xC3\xA4ss");  // "päss"
  EXPECT_EQ(query.passwordData(), (Bytes{'p', 0xC3, 0xA4, 's', 's'}));
  EXPECT_EQ(query.passwordObject(), std::nullopt);  // not an archive
  query.setPasswordData(Bytes{0xFF, 0xFE});
  EXPECT_EQ(query.password(), std::nullopt);  // not UTF-8
  query.setPassword(std::nullopt);
  EXPECT_EQ(query.passwordData(), std::nullopt);
}

TEST_F(LKKeychainTest, BaseQueryHoldsItsKeysInOrder) {
  struct Case {
    std::optional<std::string> service, account, group;
    LKKeychainQuerySynchronizationMode mode;
    const char* expected;
  };
  const std::vector<Case> cases = {
      {{}, {}, {}, LKKeychainQuerySynchronizationModeAny, R"({"class":"genp","sync":"syna"})"},
      {"s", "a", {}, LKKeychainQuerySynchronizationModeNo,
       R"({"class":"genp","svce":"s","acct":"a","sync":false})"},
      {"s", "a", "g", LKKeychainQuerySynchronizationModeYes,
       R"({"class":"genp","svce":"s","acct":"a","agrp":"g","sync":true})"},
      {{}, "a", "g", LKKeychainQuerySynchronizationMode{7},
       R"({"class":"genp","acct":"a","agrp":"g"})"},
  };
  for (const auto& c : cases) {
    LKKeychainQuery query;
    query.setService(c.service);
    query.setAccount(c.account);
    query.setAccessGroup(c.group);
    query.setSynchronizationMode(c.mode);
    query.setLabel("never in the base query");
    EXPECT_EQ(query.query().dump(), c.expected);
  }
  EXPECT_TRUE(LKKeychainQuery::isSynchronizationAvailable());
  EXPECT_EQ(LKKeychainQuery().synchronizationMode(), LKKeychainQuerySynchronizationModeAny);
}

TEST_F(LKKeychainTest, SynchronizationModesMatchTheirItems) {
  auto save = [](LKKeychainQuerySynchronizationMode mode, const char* password) {
    LKKeychainQuery q;
    q.setService("polls");
    q.setAccount("user_token");
    q.setSynchronizationMode(mode);
    q.setPassword(password);
    return q.save();
  };
  ASSERT_TRUE(save(LKKeychainQuerySynchronizationModeYes, "synced"));
  ASSERT_TRUE(save(LKKeychainQuerySynchronizationModeNo, "local"));

  const std::vector<std::pair<LKKeychainQuerySynchronizationMode, std::size_t>> listings = {
      {LKKeychainQuerySynchronizationModeAny, 2},
      {LKKeychainQuerySynchronizationModeYes, 1},
      {LKKeychainQuerySynchronizationModeNo, 1}};
  for (const auto& [mode, count] : listings) {
    LKKeychainQuery q;
    q.setSynchronizationMode(mode);
    auto items = q.fetchAll();
    ASSERT_TRUE(items);
    EXPECT_EQ(items->size(), count) << mode;
  }
  for (const auto& [mode, expected] :
       std::vector<std::pair<LKKeychainQuerySynchronizationMode, const char*>>{
           {LKKeychainQuerySynchronizationModeYes, "synced"},
           {LKKeychainQuerySynchronizationModeNo, "local"}}) {
    LKKeychainQuery q;
    q.setService("polls");
    q.setAccount("user_token");
    q.setSynchronizationMode(mode);
    ASSERT_TRUE(q.fetch());
    EXPECT_EQ(q.password(), expected);
  }
}

TEST_F(LKKeychainTest, LockedDeviceStopsTheSaveWithItsCode) {
  ASSERT_TRUE(LKKeychain::setPassword("before", "polls", "user_token"));
  store_->failCall(Op::kCopyMatching, platform::errSecInteractionNotAllowed);
  const auto before = store_->calls().size();

  Error error;
  EXPECT_FALSE(LKKeychain::setPassword("after", "polls", "user_token", &error));
  EXPECT_EQ(error.code, -25308);
  EXPECT_EQ(error.localizedDescription(), "errSecInteractionNotAllowed");
  EXPECT_EQ(store_->calls().size(), before + 1);  // no update, no add, no delete

  store_->failAlways(Op::kUpdate, platform::errSecAuthFailed);
  EXPECT_FALSE(LKKeychain::setPassword("after", "polls", "user_token", &error));
  EXPECT_EQ(error.code, -25293);
  store_->clearFaults();
  EXPECT_EQ(LKKeychain::passwordForService("polls", "user_token"), "before");
}

TEST_F(LKKeychainTest, AccessibilityTypeGoesIntoSavesAndListings) {
  EXPECT_EQ(LKKeychain::accessibilityType(), std::nullopt);
  LKKeychain::setAccessibilityType(platform::kSecAttrAccessibleAfterFirstUnlock);
  ASSERT_TRUE(LKKeychain::setPassword("one", "polls", "user_token"));
  ASSERT_TRUE(LKKeychain::setPassword("two", "polls", "user_token"));
  ASSERT_TRUE(LKKeychain::allAccounts());
  for (const auto& call : store_->calls()) {
    switch (call.operation) {
      case Op::kAdd: EXPECT_EQ(call.query["pdmn"], "ck"); break;
      case Op::kUpdate:
        EXPECT_EQ(call.attributesToUpdate["pdmn"], "ck");
        EXPECT_FALSE(call.query.contains("pdmn"));  // the base query never has it
        break;
      case Op::kCopyMatching:  // only the listing adds it
        EXPECT_EQ(call.query.contains("pdmn"), call.query.contains("m_Limit") &&
                                                   call.query["m_Limit"] == "m_LimitAll");
        break;
      case Op::kDelete: break;
    }
  }
  LKKeychain::setAccessibilityType(platform::kSecAttrAccessibleAlways);
  EXPECT_EQ(LKKeychain::accessibilityType(), "dk");
  LKKeychainQuery query;
  query.setService("polls");
  EXPECT_FALSE(query.query().contains("pdmn"));  // never part of the base query
  // Listing now asks for the new type, which the saved item does not have.
  EXPECT_EQ(LKKeychain::allAccounts(), std::nullopt);
}

TEST_F(LKKeychainTest, ListingIsKeyedByTheExportedConstants) {
  EXPECT_STREQ(kLKKeychainClassKey, kLKKeychainLabelKey);
  LKKeychainQuery q;
  q.setService("polls");
  q.setAccount("user_token");
  q.setLabel("Access token");
  q.setPassword("secret");
  ASSERT_TRUE(q.save());
  advanceWallClock(90);
  ASSERT_TRUE(LKKeychain::setPassword("secret2", "polls", "user_token"));
  ASSERT_TRUE(LKKeychain::setPassword("x", "other", "someone"));

  auto polls = LKKeychain::accountsForService("polls");
  ASSERT_TRUE(polls && polls->size() == 1);
  const Value& item = (*polls)[0];
  EXPECT_EQ(item[kLKKeychainWhereKey], "polls");
  EXPECT_EQ(item[kLKKeychainAccountKey], "user_token");
  EXPECT_EQ(item[kLKKeychainClassKey], "Access token");
  EXPECT_FALSE(item.contains(kLKKeychainDescriptionKey));
  EXPECT_EQ(item[kLKKeychainCreatedAtKey].get<double>(), 1795262400.0);
  EXPECT_EQ(item[kLKKeychainLastModifiedKey].get<double>(), 1795262490.0);
  EXPECT_FALSE(item.contains("v_Data"));  // a listing never carries the secret
  auto all = LKKeychain::allAccounts();
  ASSERT_TRUE(all);
  EXPECT_EQ(all->size(), 2u);
}

TEST_F(LKKeychainTest, ConcurrentCallsFromTwoThreadsStayConsistent) {
  // The default durable store, shared by both threads.
  env_->setKeychainStore(nullptr);
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
  std::thread t1(worker, "one", &ok1);
  std::thread t2(worker, "two", &ok2);
  t1.join();
  t2.join();
  EXPECT_TRUE(ok1);
  EXPECT_TRUE(ok2);
  const auto shared = LKKeychain::passwordForService("polls", "shared");
  EXPECT_TRUE(shared == "one39" || shared == "two39") << platform::describe(shared);
  EXPECT_EQ(LKKeychain::allAccounts()->size(), 3u);
}

}  // namespace
}  // namespace quorvia
