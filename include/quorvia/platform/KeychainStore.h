#pragma once
/// \file
/// The seam behind the keychain item functions: the store they run against,
/// installable by the host or a test before the first keychain call, plus the
/// stores the platform provides (SQLite on disk, in memory, fault injecting).

#include <cstddef>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "quorvia/export.h"
#include "quorvia/platform/Keychain.h"

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

/// Installs the store behind SecItemAdd/Update/Delete/CopyMatching; nullptr
/// restores the default (the SQLite store in dataDirectory(), opened on first
/// use). Thread-safe; calls already running finish on the store they started
/// with, which the process keeps alive until they return.
QUORVIA_EXPORT void setKeychainStore(std::shared_ptr<KeychainStore> store);

/// The store the item functions use now (creating the default on first call).
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

/// The file name of the durable store inside its directory.
inline constexpr const char* kKeychainStoreFileName = "keychain.sqlite";

/// Wraps a store to record every call and to answer a chosen call with a
/// chosen status instead of reaching the wrapped store (to exercise "device
/// locked" and other failure paths). Thread-safe.
class QUORVIA_EXPORT FaultInjectingKeychainStore final : public KeychainStore {
 public:
  enum class Operation { kAdd, kUpdate, kDelete, kCopyMatching };

  /// One recorded call: the operation and its first dictionary argument.
  struct Call {
    Operation operation;
    Value query;
    Value attributesToUpdate;  // SecItemUpdate only; null otherwise.
  };

  explicit FaultInjectingKeychainStore(std::shared_ptr<KeychainStore> wrapped);

  /// The `nth` (1-based, counted from now) call of `operation` answers
  /// `status` without reaching the wrapped store.
  void failCall(Operation operation, OSStatus status, int nth = 1);
  /// Every later call of `operation` answers `status`, until clearFaults().
  void failAlways(Operation operation, OSStatus status);
  void clearFaults();

  /// Every call so far, in order, including failed ones.
  std::vector<Call> calls() const;

  OSStatus add(const Value& attributes, Value* result) override;
  OSStatus update(const Value& query, const Value& attributesToUpdate) override;
  OSStatus remove(const Value& query) override;
  OSStatus copyMatching(const Value& query, Value* result) override;

 private:
  struct Fault {
    Operation operation;
    OSStatus status;
    int remaining;  // calls to let through first; -1 = every call.
  };
  // Records the call; true (with `*status` set) when a fault answers it.
  bool intercept(Call call, OSStatus* status);

  std::shared_ptr<KeychainStore> wrapped_;
  mutable std::mutex mu_;
  std::vector<Fault> faults_;
  std::vector<Call> calls_;
};

}  // namespace quorvia::platform
