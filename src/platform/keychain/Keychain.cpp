#include "platform/Keychain.h"

#include <exception>
#include <string>

#include "quorvia/platform/Environment.h"
#include "platform/KeychainStore.h"
#include "platform/Log.h"

namespace quorvia::platform {
namespace {

// The store calls stop any exception here, so none reaches the caller. The
// message names the failure only: it never carries an argument's value.
template <typename Call>
OSStatus guarded(const char* function, Call&& call) noexcept {
  try {
    return call(*keychainStore());
  } catch (const std::bad_alloc&) {
    return errSecAllocate;
  } catch (const std::exception& e) {
    try {
      debugLog(std::string("QuorviaSDK: ") + function + " failed: " + e.what());
    } catch (...) {
    }
    return errSecParam;
  }
}

}  // namespace

KeychainStore::~KeychainStore() = default;

std::shared_ptr<KeychainStore> keychainStore() { return environment().keychainStore(); }

OSStatus SecItemAdd(const Value& attributes, Value* result) {
  return guarded("SecItemAdd", [&](KeychainStore& s) { return s.add(attributes, result); });
}

OSStatus SecItemUpdate(const Value& query, const Value& attributesToUpdate) {
  return guarded("SecItemUpdate",
                 [&](KeychainStore& s) { return s.update(query, attributesToUpdate); });
}

OSStatus SecItemDelete(const Value& query) {
  return guarded("SecItemDelete", [&](KeychainStore& s) { return s.remove(query); });
}

OSStatus SecItemCopyMatching(const Value& query, Value* result) {
  return guarded("SecItemCopyMatching",
                 [&](KeychainStore& s) { return s.copyMatching(query, result); });
}

}  // namespace quorvia::platform
