// The four keychain item functions with arbitrary attribute dictionaries, on
// the in-memory store: a sequence of adds, updates, deletes and look-ups.
#include <cstddef>
#include <cstdint>

#include "../FuzzSupport.h"
#include "platform/Keychain.h"
#include "platform/KeychainStore.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quorvia;
  using namespace quorvia::platform;
  // A fresh store per input.
  fuzz::installPlatformDoubles().setKeychainStore(makeInMemoryKeychainStore());
  static const std::vector<std::string> kKeys = {
      kSecClass, kSecClassGenericPassword, kSecAttrService, kSecAttrAccount, kSecAttrAccessGroup,
      kSecAttrLabel, kSecAttrDescription, kSecAttrSynchronizable, kSecAttrAccessible,
      kSecValueData, kSecReturnData, kSecReturnAttributes, kSecMatchLimit, kSecMatchLimitAll,
      kSecMatchLimitOne, kSecAttrSynchronizableAny, kSecAttrCreationDate};
  FuzzedDataProvider in(data, size);
  while (in.remaining_bytes() > 0) {
    const int operation = in.ConsumeIntegralInRange(0, 3);
    Value query = fuzz::consumeValue(in, 2, kKeys);
    if (in.ConsumeBool() && query.is_object()) query[kSecClass] = kSecClassGenericPassword;
    Value result;
    switch (operation) {
      case 0: (void)SecItemAdd(query, in.ConsumeBool() ? &result : nullptr); break;
      case 1: (void)SecItemUpdate(query, fuzz::consumeValue(in, 2, kKeys)); break;
      case 2: (void)SecItemDelete(query); break;
      default: (void)SecItemCopyMatching(query, in.ConsumeBool() ? &result : nullptr); break;
    }
    (void)describe(result);
  }
  return 0;
}
