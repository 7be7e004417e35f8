#pragma once
/// \file
/// Localised strings of the main bundle (NSBundle localizedStringForKey:).

#include <optional>
#include <string>

#include "quorvia/export.h"

namespace quorvia::platform {

/// The text under `key` in the main bundle's strings table `table`, as the
/// environment has it. When the table or the key is missing: `value` when it
/// is non-empty, else the key itself. Thread-safe.
QUORVIA_EXPORT std::string localizedStringForKey(const std::string& key,
                                                 const std::optional<std::string>& value,
                                                 const std::string& table);

}  // namespace quorvia::platform
