#pragma once
/// \file
/// LKKeychainQuery: one generic-password keychain item described by service,
/// account, label, access group and synchronisation mode, which can be saved,
/// fetched, listed or deleted.

#include <cstdint>
#include <optional>
#include <string>

#include "quorvia/export.h"
#include "keychain/LKKeychainConstants.h"
#include "quorvia/platform/Error.h"
#include "platform/Keychain.h"
#include "quorvia/platform/Value.h"

namespace quorvia {

/// Whether an item is synchronised between devices; the value written under
/// kSecAttrSynchronizable. A mode outside 0 to 2 puts no value there.
enum LKKeychainQuerySynchronizationMode : std::uint64_t {
  LKKeychainQuerySynchronizationModeAny = 0,
  LKKeychainQuerySynchronizationModeNo = 1,
  LKKeychainQuerySynchronizationModeYes = 2,
};

/// A description of one keychain item and the operations on it. A value type
/// owning copies of its fields; one object must not be used from two threads
/// at once, while separate objects may run on any threads concurrently. Every
/// operation is a synchronous keychain call on the caller's thread; an error
/// slot, where given, receives errorWithCode() of the failing status and is
/// left untouched on success.
class QUORVIA_EXPORT LKKeychainQuery final {
 public:
  /// A query with no fields set and synchronisation mode Any.
  LKKeychainQuery() = default;

  const std::optional<std::string>& account() const { return account_; }
  void setAccount(std::optional<std::string> account) { account_ = std::move(account); }
  const std::optional<std::string>& service() const { return service_; }
  void setService(std::optional<std::string> service) { service_ = std::move(service); }
  /// Written only when save() adds the item, never by an update.
  const std::optional<std::string>& label() const { return label_; }
  void setLabel(std::optional<std::string> label) { label_ = std::move(label); }
  const std::optional<std::string>& accessGroup() const { return accessGroup_; }
  void setAccessGroup(std::optional<std::string> group) { accessGroup_ = std::move(group); }
  LKKeychainQuerySynchronizationMode synchronizationMode() const { return synchronizationMode_; }
  void setSynchronizationMode(LKKeychainQuerySynchronizationMode mode) {
    synchronizationMode_ = mode;
  }
  /// The secret's bytes (nil until set or fetched).
  const std::optional<platform::Bytes>& passwordData() const { return passwordData_; }
  void setPasswordData(std::optional<platform::Bytes> data) { passwordData_ = std::move(data); }

  /// passwordData decoded as UTF-8; nil when it is nil, empty or not UTF-8.
  std::optional<std::string> password() const;
  /// Stores the string's UTF-8 bytes; nil clears passwordData.
  void setPassword(const std::optional<std::string>& password);
  /// The value archived in passwordData (KeyedArchiver.h); nil when it is nil,
  /// empty or not an archive.
  std::optional<platform::Value> passwordObject() const;
  /// Stores the archive of `object`; nil clears passwordData.
  void setPasswordObject(const std::optional<platform::Value>& object);

  /// Updates the item's data (and accessibility) when it exists, else adds it
  /// with label and accessibility. Fails with -1001, touching nothing, when
  /// service, account or passwordData is nil; never deletes.
  bool save(platform::Error* error = nullptr);
  /// Deletes the item; -1001 without a keychain call when service or account
  /// is nil.
  bool deleteItem(platform::Error* error = nullptr);
  /// The attribute dictionaries (keyed "acct", "svce", "labl", "cdat",
  /// "mdat"...) of every matching item, as an array; nil on failure. A nil
  /// service lists every service.
  std::optional<platform::Value> fetchAll(platform::Error* error = nullptr);
  /// Reads the item's data into passwordData; on failure passwordData is left
  /// as it was. -1001 without a keychain call when service or account is nil.
  bool fetch(platform::Error* error = nullptr);

  /// The base attribute dictionary, in this order: class, then service,
  /// account and access group when set, then the synchronizable value when
  /// synchronisation is available. Never the label or the accessibility.
  platform::Value query() const;

  /// Whether the platform's Foundation is newer than 993.0. Thread-safe.
  static bool isSynchronizationAvailable();

  /// The error for keychain status `code` (domain kLKKeychainErrorDomain, the
  /// code, and the text of its message key looked up in the main bundle's
  /// "LKKeychain" strings table); nil for 0. Thread-safe.
  static std::optional<platform::Error> errorWithCode(platform::OSStatus code);

 private:
  std::optional<std::string> account_;
  std::optional<std::string> service_;
  std::optional<std::string> label_;
  std::optional<std::string> accessGroup_;
  LKKeychainQuerySynchronizationMode synchronizationMode_ = LKKeychainQuerySynchronizationModeAny;
  std::optional<platform::Bytes> passwordData_;
};

}  // namespace quorvia
