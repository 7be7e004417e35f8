// The item functions' rules, checked against both stores so they answer alike
// (how items are matched and listed is checked through LKKeychain).

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
