#pragma once
/// \file
/// LKKeychain: one-line keychain calls by service and account. Each builds a
/// fresh LKKeychainQuery, sets the named fields and runs one operation on the
/// caller's thread. Every call is safe from any thread. An error slot, where
/// given, receives the failing operation's error (see LKKeychainQuery).

#include <optional>
#include <string>

#include "quorvia/export.h"
#include "keychain/LKKeychainQuery.h"
#include "quorvia/platform/Error.h"
#include "quorvia/platform/Value.h"

namespace quorvia {

class QUORVIA_EXPORT LKKeychain final {
 public:
  LKKeychain() = delete;

  /// The item's password as UTF-8 text; nil when the fetch fails (or the data
  /// is empty or not UTF-8).
  static std::optional<std::string> passwordForService(const std::optional<std::string>& service,
                                                       const std::optional<std::string>& account,
                                                       platform::Error* error = nullptr);
  /// The item's data; nil when the fetch fails.
  static std::optional<platform::Bytes> passwordDataForService(
      const std::optional<std::string>& service, const std::optional<std::string>& account,
      platform::Error* error = nullptr);
  /// Deletes the item; true on success.
  static bool deletePasswordForService(const std::optional<std::string>& service,
                                       const std::optional<std::string>& account,
                                       platform::Error* error = nullptr);
  /// Saves `password` (UTF-8) as the item's data, updating or adding it.
  static bool setPassword(const std::optional<std::string>& password,
                          const std::optional<std::string>& service,
                          const std::optional<std::string>& account,
                          platform::Error* error = nullptr);
  /// Saves `password` as the item's data, updating or adding it.
  static bool setPasswordData(const std::optional<platform::Bytes>& password,
                              const std::optional<std::string>& service,
                              const std::optional<std::string>& account,
                              platform::Error* error = nullptr);
  /// The attribute dictionaries of the items of every service.
  static std::optional<platform::Value> allAccounts(platform::Error* error = nullptr);
  /// The attribute dictionaries of the items of `service` (every service when
  /// nil); nil on failure.
  static std::optional<platform::Value> accountsForService(
      const std::optional<std::string>& service, platform::Error* error = nullptr);

  /// The process-wide kSecAttrAccessible value given to saved and listed
  /// items; nil until set. Thread-safe.
  static std::optional<std::string> accessibilityType();
  /// Replaces the accessibility type; once set it cannot be cleared. The host
  /// sets it before use. Thread-safe.
  static void setAccessibilityType(const std::string& accessibilityType);
};

}  // namespace quorvia
