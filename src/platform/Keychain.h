#pragma once
/// \file
/// Keychain item functions (SecItemAdd, SecItemUpdate, SecItemDelete,
/// SecItemCopyMatching) over attribute dictionaries, with the platform's
/// attribute keys, values and status codes.
///
/// Only generic-password items exist. An item's identity is its class,
/// service, account, access group and synchronizable flag. A query that omits
/// service, account, access group, label, description or accessibility matches
/// any value of it; a query that omits kSecAttrSynchronizable matches only
/// items that are not synchronised, and kSecAttrSynchronizableAny matches both.
///
/// Attribute dictionaries returned by a search hold "class", "svce", "acct",
/// "agrp", "sync" (boolean), "pdmn", "cdat" and "mdat", then "labl" and "desc"
/// when the item has them. Dates are numbers: seconds since 1970-01-01 UTC,
/// taken from wallClockNow(). An item added without kSecAttrAccessible gets
/// kSecAttrAccessibleWhenUnlocked; one added with kSecAttrSynchronizableAny is
/// not synchronised.
///
/// All four functions are safe to call from any thread; they run on the
/// caller's thread against the environment's keychain store, on the desktop
/// the Secret Service or the SQLite store in dataDirectory().

#include <cstdint>

#include "quorvia/export.h"
#include "quorvia/platform/Value.h"

namespace quorvia::platform {

/// A keychain status code; 0 is success.
using OSStatus = std::int32_t;

inline constexpr OSStatus errSecSuccess = 0;
inline constexpr OSStatus errSecUnimplemented = -4;
inline constexpr OSStatus errSecParam = -50;
inline constexpr OSStatus errSecAllocate = -108;
/// The store cannot be used: unreadable, refused for its file mode, or busy;
/// a keyring that is locked, does not answer in time, or is not there.
inline constexpr OSStatus errSecNotAvailable = -25291;
inline constexpr OSStatus errSecAuthFailed = -25293;
inline constexpr OSStatus errSecDuplicateItem = -25299;
inline constexpr OSStatus errSecItemNotFound = -25300;
/// The device is locked (never produced by the desktop stores themselves).
inline constexpr OSStatus errSecInteractionNotAllowed = -25308;
/// The store file is not a readable item store (corrupt or foreign).
inline constexpr OSStatus errSecDecode = -26275;

// Item class.
inline constexpr const char* kSecClass = "class";
inline constexpr const char* kSecClassGenericPassword = "genp";

// Attributes.
inline constexpr const char* kSecAttrService = "svce";
inline constexpr const char* kSecAttrAccount = "acct";
inline constexpr const char* kSecAttrAccessGroup = "agrp";
inline constexpr const char* kSecAttrLabel = "labl";
inline constexpr const char* kSecAttrDescription = "desc";
inline constexpr const char* kSecAttrCreationDate = "cdat";
inline constexpr const char* kSecAttrModificationDate = "mdat";
/// Boolean, or kSecAttrSynchronizableAny in a query.
inline constexpr const char* kSecAttrSynchronizable = "sync";
inline constexpr const char* kSecAttrSynchronizableAny = "syna";
/// One of the kSecAttrAccessible... values below.
inline constexpr const char* kSecAttrAccessible = "pdmn";

// Values of kSecAttrAccessible.
inline constexpr const char* kSecAttrAccessibleWhenUnlocked = "ak";
inline constexpr const char* kSecAttrAccessibleAfterFirstUnlock = "ck";
inline constexpr const char* kSecAttrAccessibleAlways = "dk";
inline constexpr const char* kSecAttrAccessibleWhenPasscodeSetThisDeviceOnly = "akpu";
inline constexpr const char* kSecAttrAccessibleWhenUnlockedThisDeviceOnly = "aku";
inline constexpr const char* kSecAttrAccessibleAfterFirstUnlockThisDeviceOnly = "cku";
inline constexpr const char* kSecAttrAccessibleAlwaysThisDeviceOnly = "dku";

// The secret and what a search returns.
inline constexpr const char* kSecValueData = "v_Data";
inline constexpr const char* kSecReturnData = "r_Data";
inline constexpr const char* kSecReturnAttributes = "r_Attributes";
inline constexpr const char* kSecMatchLimit = "m_Limit";
inline constexpr const char* kSecMatchLimitOne = "m_LimitOne";
inline constexpr const char* kSecMatchLimitAll = "m_LimitAll";

/// Adds the item that `attributes` describes (kSecClass, identity attributes,
/// optional label, description, accessibility, and kSecValueData). Returns 0,
/// errSecDuplicateItem when an item of the same identity exists, errSecParam
/// for a malformed dictionary. When `result` is non-null and the dictionary
/// asks for a return value, `result` receives it as a search would.
QUORVIA_EXPORT OSStatus SecItemAdd(const Value& attributes, Value* result);

/// Changes every item that `query` matches with `attributesToUpdate` (any of
/// kSecValueData, kSecAttrLabel, kSecAttrDescription, kSecAttrAccessible).
/// Returns 0, errSecItemNotFound when nothing matches, or errSecParam.
QUORVIA_EXPORT OSStatus SecItemUpdate(const Value& query, const Value& attributesToUpdate);

/// Deletes every item that `query` matches. Returns 0 or errSecItemNotFound.
QUORVIA_EXPORT OSStatus SecItemDelete(const Value& query);

/// Searches for the items that `query` matches. With kSecReturnData and/or
/// kSecReturnAttributes, `result` (when non-null) receives, for
/// kSecMatchLimitOne (the default), the data, the attribute dictionary, or
/// the attribute dictionary holding the data under kSecValueData; for
/// kSecMatchLimitAll an array of those. Returns 0 or errSecItemNotFound.
QUORVIA_EXPORT OSStatus SecItemCopyMatching(const Value& query, Value* result);

}  // namespace quorvia::platform
