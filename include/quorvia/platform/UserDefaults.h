#pragma once
/// \file
/// User defaults (NSUserDefaults standardUserDefaults): a property-list
/// key/value store kept in the data directory.

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "quorvia/export.h"
#include "quorvia/platform/Value.h"

namespace quorvia::platform {

/// A key/value store of values, persisted as one keyed archive file
/// ("UserDefaults.qvka" in the data directory) that synchronize() replaces
/// atomically (temporary file, fsync, rename), so a crash leaves either the
/// old or the new file. A file that does not read back as a dictionary is
/// logged, moved aside to "<file>.corrupt" and the store starts empty.
/// Thread-safe.
class QUORVIA_EXPORT UserDefaults final {
 public:
  /// The process's store in dataDirectory(), loaded on first use.
  static UserDefaults& standardUserDefaults();

  explicit UserDefaults(std::filesystem::path file);
  ~UserDefaults();
  UserDefaults(const UserDefaults&) = delete;
  UserDefaults& operator=(const UserDefaults&) = delete;

  /// The value under `key`, or nullopt.
  std::optional<Value> objectForKey(std::string_view key);
  /// The value under `key` when it is a dictionary; nullopt otherwise.
  std::optional<Value> dictionaryForKey(std::string_view key);
  /// Sets the value under `key`; nullopt removes the key.
  void setObject(std::optional<Value> value, std::string_view key);
  /// Writes the store to its file; true on success (a failure is logged).
  bool synchronize();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace quorvia::platform
