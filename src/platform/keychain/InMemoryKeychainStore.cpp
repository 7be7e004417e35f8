// The keychain store that lives in memory only, for tests.

#include <algorithm>
#include <mutex>
#include <vector>

#include "platform/keychain/KeychainItem.h"
#include "platform/KeychainStore.h"

namespace quorvia::platform {
namespace {

using keychain::Item;
using keychain::Search;

class InMemoryKeychainStore final : public KeychainStore {
 public:
  OSStatus add(const Value& attributes, Value* result) override {
    Item item;
    Search returned;
    if (OSStatus s = keychain::parseNewItem(attributes, keychain::now(), &item, &returned)) {
      return s;
    }
    std::lock_guard lock(mu_);
    for (const Item& existing : items_) {
      if (keychain::sameIdentity(existing, item)) return errSecDuplicateItem;
    }
    items_.push_back(std::move(item));
    if (result && (returned.returnData || returned.returnAttributes)) {
      *result = keychain::resultOf(returned, {&items_.back()});
    }
    return errSecSuccess;
  }

  OSStatus update(const Value& query, const Value& attributesToUpdate) override {
    Search search;
    keychain::Changes changes;
    if (OSStatus s = keychain::parseSearch(query, &search)) return s;
    if (OSStatus s = keychain::parseChanges(attributesToUpdate, &changes)) return s;
    std::lock_guard lock(mu_);
    const double at = keychain::now();
    bool any = false;
    for (Item& item : items_) {
      if (!search.matches(item)) continue;
      changes.applyTo(&item, at);
      any = true;
    }
    return any ? errSecSuccess : errSecItemNotFound;
  }

  OSStatus remove(const Value& query) override {
    Search search;
    if (OSStatus s = keychain::parseSearch(query, &search)) return s;
    std::lock_guard lock(mu_);
    const auto removed =
        std::erase_if(items_, [&](const Item& item) { return search.matches(item); });
    return removed > 0 ? errSecSuccess : errSecItemNotFound;
  }

  OSStatus copyMatching(const Value& query, Value* result) override {
    Search search;
    if (OSStatus s = keychain::parseSearch(query, &search)) return s;
    std::lock_guard lock(mu_);
    std::vector<const Item*> found;
    for (const Item& item : items_) {
      if (search.matches(item)) found.push_back(&item);
    }
    if (found.empty()) return errSecItemNotFound;
    if (result && (search.returnData || search.returnAttributes)) {
      *result = keychain::resultOf(search, found);
    }
    return errSecSuccess;
  }

 private:
  std::mutex mu_;
  std::vector<Item> items_;
};

}  // namespace

std::shared_ptr<KeychainStore> makeInMemoryKeychainStore() {
  return std::make_shared<InMemoryKeychainStore>();
}

}  // namespace quorvia::platform
