// The item functions' rules, checked against both stores so they answer alike.

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/Device.h"
#include "platform/Keychain.h"
#include "platform/KeychainStore.h"
#include "support/PlatformTest.h"

namespace quorvia::platform {
namespace {

Value item(const char* service, const char* account) {
  return {{kSecClass, kSecClassGenericPassword},
          {kSecAttrService, service},
          {kSecAttrAccount, account}};
}

Value with(Value v, const char* key, Value value) {
  v[key] = std::move(value);
  return v;
}

Value secret(const std::string& text) { return dataValue(Bytes(text.begin(), text.end())); }

class KeychainItemsTest : public testing::PlatformTest,
                          public ::testing::WithParamInterface<const char*> {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    if (std::string(GetParam()) == "memory") {
      env_->setKeychainStore(makeInMemoryKeychainStore());
    } else {
      env_->setKeychainStore(makeSQLiteKeychainStore(dataDirectory()));
    }
  }

  // The data of the one item `query` matches, as text ("" when none).
  std::string dataOf(Value query) {
    query[kSecReturnData] = true;
    Value result;
    if (SecItemCopyMatching(query, &result) != errSecSuccess || !result.is_binary()) return "";
    return std::string(result.get_binary().begin(), result.get_binary().end());
  }

  std::size_t countOf(Value query) {
    query[kSecReturnAttributes] = true;
    query[kSecMatchLimit] = kSecMatchLimitAll;
    Value result;
    if (SecItemCopyMatching(query, &result) != errSecSuccess) return 0;
    return result.size();
  }
};

TEST_P(KeychainItemsTest, IdentityIsServiceAccountGroupAndSyncFlag) {
  const Value base = with(item("polls", "user_token"), kSecValueData, secret("a"));
  const std::vector<std::pair<Value, OSStatus>> adds = {
      {base, errSecSuccess},
      {base, errSecDuplicateItem},
      {with(base, kSecAttrLabel, "another label"), errSecDuplicateItem},
      {with(base, kSecAttrSynchronizable, kSecAttrSynchronizableAny), errSecDuplicateItem},
      {with(base, kSecAttrSynchronizable, false), errSecDuplicateItem},
      {with(base, kSecAttrSynchronizable, true), errSecSuccess},
      {with(base, kSecAttrSynchronizable, true), errSecDuplicateItem},
      {with(base, kSecAttrAccessGroup, "team.shared"), errSecSuccess},
      {with(item("polls", "other"), kSecValueData, secret("b")), errSecSuccess},
      {with(item("other", "user_token"), kSecValueData, secret("c")), errSecSuccess},
  };
  for (std::size_t i = 0; i < adds.size(); ++i) {
    EXPECT_EQ(SecItemAdd(adds[i].first, nullptr), adds[i].second) << "add #" << i;
  }
  EXPECT_EQ(countOf(with(Value{{kSecClass, kSecClassGenericPassword}}, kSecAttrSynchronizable,
                         kSecAttrSynchronizableAny)),
            5u);
}

// Without a sync key a query matches local items only; delete and update reach
// only what they match, and absent items are not found.
TEST_P(KeychainItemsTest, QueryWithoutSyncKeyMatchesOnlyLocalItems) {
  Value result = "untouched";
  EXPECT_EQ(SecItemCopyMatching(with(item("s", "a"), kSecReturnData, true), &result),
            errSecItemNotFound);
  EXPECT_EQ(result, "untouched");
  EXPECT_EQ(SecItemUpdate(item("s", "a"), {{kSecValueData, secret("x")}}), errSecItemNotFound);
  EXPECT_EQ(SecItemDelete(item("s", "a")), errSecItemNotFound);

  ASSERT_EQ(SecItemAdd(with(item("s", "a"), kSecValueData, secret("local")), nullptr), 0);
  ASSERT_EQ(SecItemAdd(with(with(item("s", "a"), kSecValueData, secret("synced")),
                            kSecAttrSynchronizable, true),
                       nullptr),
            0);
  struct Case {
    std::optional<Value> sync;  // nullopt: no sync key
    std::size_t count;
    std::string one;
  };
  const Case cases[] = {{std::nullopt, 1, "local"},
                        {false, 1, "local"},
                        {true, 1, "synced"},
                        {kSecAttrSynchronizableAny, 2, ""}};
  for (const auto& c : cases) {
    const Value query =
        c.sync ? with(item("s", "a"), kSecAttrSynchronizable, *c.sync) : item("s", "a");
    EXPECT_EQ(countOf(query), c.count) << query.dump();
    if (!c.one.empty()) {
      EXPECT_EQ(dataOf(query), c.one) << query.dump();
    }
  }
  EXPECT_EQ(SecItemUpdate(item("s", "a"), {{kSecValueData, secret("local2")}}), 0);
  EXPECT_EQ(dataOf(with(item("s", "a"), kSecAttrSynchronizable, true)), "synced");
  EXPECT_EQ(SecItemDelete(item("s", "a")), 0);
  EXPECT_EQ(SecItemDelete(item("s", "a")), errSecItemNotFound);
  EXPECT_EQ(dataOf(with(item("s", "a"), kSecAttrSynchronizable, kSecAttrSynchronizableAny)),
            "synced");
}

TEST_P(KeychainItemsTest, SearchReturnsAttributesByShortCodesWithDates) {
  Value added =
      with(with(item("polls", "user_token"), kSecValueData, secret("tok")), kSecAttrLabel, "label");
  added[kSecAttrDescription] = "what it is";
  ASSERT_EQ(SecItemAdd(added, nullptr), 0);
  advanceWallClock(30);
  ASSERT_EQ(SecItemUpdate(item("polls", "user_token"), {{kSecValueData, secret("tok2")}}), 0);

  Value result;
  ASSERT_EQ(
      SecItemCopyMatching(with(item("polls", "user_token"), kSecReturnAttributes, true), &result),
      0);
  EXPECT_EQ(result, (Value{{"class", "genp"},
                           {"svce", "polls"},
                           {"acct", "user_token"},
                           {"agrp", ""},
                           {"sync", false},
                           {"pdmn", "ak"},
                           {"cdat", 1795262400.0},
                           {"mdat", 1795262430.0},
                           {"labl", "label"},
                           {"desc", "what it is"}}));
  Value both = with(item("polls", "user_token"), kSecReturnAttributes, true);
  both[kSecReturnData] = true;
  ASSERT_EQ(SecItemCopyMatching(both, &result), 0);
  EXPECT_EQ(result[kSecValueData], secret("tok2"));
}

TEST_P(KeychainItemsTest, MalformedDictionariesAreBadParameters) {
  const Value good = item("s", "a");
  const std::vector<Value> queries = {
      Value::array(),
      Value{{kSecAttrService, "s"}},
      with(good, kSecClass, "inet"),
      with(good, kSecAttrService, 5),
      with(good, kSecAttrSynchronizable, "sometimes"),
      with(good, kSecMatchLimit, "m_LimitSome"),
      with(good, kSecReturnData, "yes"),
      with(good, "u_Unknown", true),
  };
  for (std::size_t i = 0; i < queries.size(); ++i) {
    SCOPED_TRACE(i);
    Value result;
    EXPECT_EQ(SecItemCopyMatching(queries[i], &result), errSecParam);
    EXPECT_EQ(SecItemDelete(queries[i]), errSecParam);
    EXPECT_EQ(SecItemUpdate(queries[i], {{kSecValueData, secret("x")}}), errSecParam);
    Value added = queries[i];
    if (added.is_object()) added[kSecValueData] = secret("x");
    EXPECT_EQ(SecItemAdd(added, nullptr), errSecParam);
  }
  ASSERT_EQ(SecItemAdd(with(good, kSecValueData, secret("x")), nullptr), 0);
  for (const Value& changes : std::vector<Value>{{{kSecClass, kSecClassGenericPassword}},
                                                 {{kSecValueData, "text, not data"}},
                                                 {{kSecAttrAccessible, "whenever"}},
                                                 {{kSecAttrAccount, "b"}}}) {
    EXPECT_EQ(SecItemUpdate(good, changes), errSecParam) << changes.dump();
  }
  EXPECT_EQ(SecItemAdd(with(with(good, kSecAttrAccount, "b"), kSecValueData, "text"), nullptr),
            errSecParam);
  EXPECT_EQ(dataOf(good), "x");
}

INSTANTIATE_TEST_SUITE_P(Stores, KeychainItemsTest, ::testing::Values("memory", "sqlite"));

}  // namespace
}  // namespace quorvia::platform
