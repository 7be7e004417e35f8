#pragma once
/// \file
/// User defaults (NSUserDefaults standardUserDefaults): a property-list
/// key/value store kept in the data directory.

#include <filesystem>
#include <memory>
#include <optional>
#include <string_view>

#include "quorvia/export.h"
#include "quorvia/platform/Value.h"

namespace quorvia::platform {

/// A key/value store of values. Implementations are thread-safe.
class QUORVIA_EXPORT UserDefaults {
 public:
  /// The environment's store.
  static UserDefaults& standardUserDefaults();

  UserDefaults() = default;
  UserDefaults(const UserDefaults&) = delete;
  UserDefaults& operator=(const UserDefaults&) = delete;
  virtual ~UserDefaults();

  /// The value under `key`, or nullopt.
  virtual std::optional<Value> objectForKey(std::string_view key) = 0;
  /// Sets the value under `key`; nullopt removes the key.
  virtual void setObject(std::optional<Value> value, std::string_view key) = 0;
  /// Writes the store to its file; true on success (a failure is logged).
  virtual bool synchronize() = 0;

  /// The value under `key` when it is a dictionary; nullopt otherwise.
  std::optional<Value> dictionaryForKey(std::string_view key);
};

/// The file name of the standard store inside the data directory.
inline constexpr const char* kUserDefaultsFileName = "UserDefaults.qvka";

/// The desktop's store: one keyed archive file that synchronize() replaces
/// atomically (temporary file, fsync, rename), so a crash leaves either the
/// old or the new file. A file that does not read back as a dictionary is
/// logged, moved aside to "<file>.corrupt" and the store starts empty. The
/// file is read on first use.
QUORVIA_EXPORT std::shared_ptr<UserDefaults> makeFileUserDefaults(std::filesystem::path file);

}  // namespace quorvia::platform
