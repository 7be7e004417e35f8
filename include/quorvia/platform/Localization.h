#pragma once
/// \file
/// Localised strings of the main bundle (NSBundle localizedStringForKey:).

#include <optional>
#include <string>

#include "quorvia/export.h"
#include "quorvia/platform/Value.h"

namespace quorvia::platform {

/// The text under `key` in the main bundle's strings table `table`. When the
/// table or the key is missing: `value` when it is non-empty, else the key
/// itself (so a missing table yields the key). Thread-safe.
QUORVIA_EXPORT std::string localizedStringForKey(const std::string& key,
                                                 const std::optional<std::string>& value,
                                                 const std::string& table);

/// Host side: installs (or replaces) the strings table `table` of the main
/// bundle; `strings` is a dictionary of string keys to string texts (entries
/// of other types are ignored). Thread-safe.
QUORVIA_EXPORT void setLocalizedStringTable(const std::string& table, Value strings);

}  // namespace quorvia::platform
