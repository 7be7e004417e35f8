#pragma once
/// \file
/// The store behind the keychain item functions (one service of the
/// environment), and the stores the platform provides (SQLite on disk, in
/// memory, and the desktop's choice between the file and its keyring).

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>

#include "platform/Keychain.h"
#include "quorvia/export.h"
#include "quorvia/platform/Environment.h"

namespace quorvia::platform {

/// A generic-password item store answering the four keychain item functions
/// with their arguments and status codes. Implementations must be safe for
/// concurrent use from several threads.
class QUORVIA_EXPORT KeychainStore {
 public:
  KeychainStore() = default;
  KeychainStore(const KeychainStore&) = delete;
  KeychainStore& operator=(const KeychainStore&) = delete;
  virtual ~KeychainStore();

  virtual OSStatus add(const Value& attributes, Value* result) = 0;
  virtual OSStatus update(const Value& query, const Value& attributesToUpdate) = 0;
  virtual OSStatus remove(const Value& query) = 0;
  virtual OSStatus copyMatching(const Value& query, Value* result) = 0;
};

/// The environment's store, which the item functions use.
QUORVIA_EXPORT std::shared_ptr<KeychainStore> keychainStore();

/// A store that lives in memory only (for tests); thread-safe.
QUORVIA_EXPORT std::shared_ptr<KeychainStore> makeInMemoryKeychainStore();

/// The durable store: the SQLite file "keychain.sqlite" in `directory`, which
/// is created with mode 0700 when missing; the file is created with mode 0600.
/// Opened lazily on each call until it opens. A file readable or writable by
/// group or others is refused (errSecNotAvailable, logged); an unreadable one
/// gives errSecNotAvailable, a corrupt one errSecDecode, on every call; such a
/// file is never deleted nor written. Each successful add, update or delete is
/// committed synchronously (write-ahead log, full sync) before it returns, and
/// several processes may share the file. Thread-safe.
QUORVIA_EXPORT std::shared_ptr<KeychainStore> makeSQLiteKeychainStore(
    const std::filesystem::path& directory);

/// How long the keyring may take before a call gives up with
/// errSecNotAvailable. Keychain calls are synchronous on the caller's thread,
/// usually the main queue, so every wait is bounded.
struct SecretServiceLimits {
  /// Each request that reads (searches, attributes, secrets) must be
  /// answered within this: well under a 16.7 ms frame, several times what a
  /// keyring takes under load (below 2 ms). Reading the token is this case.
  std::chrono::milliseconds read{10};
  /// Each request that writes: the keyring saves its file to disk before it
  /// answers (15 ms typically, 80 ms seen on a busy disk).
  std::chrono::milliseconds write{500};
  /// Connecting to the session bus and opening an encrypted session, which
  /// may start the keyring's daemon: once per process, again after a failure
  /// that lost the session.
  std::chrono::milliseconds open{500};
};

/// The store of the desktop environment: the SQLite store in `dataDirectory`,
/// the Secret Service store of `appIdentifier` (moving the SQLite store's
/// items into it on first use), or, automatically, the Secret Service when
/// one answers on the session bus and else the SQLite store, logging which.
QUORVIA_EXPORT std::shared_ptr<KeychainStore> makeDesktopKeychainStore(
    DesktopEnvironmentOptions::KeychainStorage storage, const std::filesystem::path& dataDirectory,
    const std::string& appIdentifier, SecretServiceLimits limits = {});

/// The file name of the durable store inside its directory.
inline constexpr const char* kKeychainStoreFileName = "keychain.sqlite";

}  // namespace quorvia::platform
