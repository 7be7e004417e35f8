#pragma once
/// \file
/// Exported constants of the keychain credential layer: the error domain and
/// the attribute keys of the dictionaries that the listing calls return.

namespace quorvia {

/// Domain of every error made by LKKeychainQuery::errorWithCode().
inline constexpr const char* kLKKeychainErrorDomain = "com.lockwell.lkkeychain";

/// Keys of a listed item's attribute dictionary.
inline constexpr const char* kLKKeychainAccountKey = "acct";
inline constexpr const char* kLKKeychainCreatedAtKey = "cdat";
/// Deliberately the label's code, not the class's: hosts that read the
/// "class" of a listed item have always received its label, and keep doing so.
inline constexpr const char* kLKKeychainClassKey = "labl";
inline constexpr const char* kLKKeychainDescriptionKey = "desc";
inline constexpr const char* kLKKeychainLabelKey = "labl";
inline constexpr const char* kLKKeychainLastModifiedKey = "mdat";
inline constexpr const char* kLKKeychainWhereKey = "svce";

}  // namespace quorvia
