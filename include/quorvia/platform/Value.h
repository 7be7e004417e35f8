#pragma once
/// \file
/// The one dynamic value type that crosses every boundary of the SDK (a host
/// builds launch options, push payloads and user info with it):
/// dictionaries, arrays, strings, numbers, booleans, data and the platform's
/// null object. "nil" is never a Value: it is absence (a null pointer, an empty
/// std::optional or a missing key).

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "quorvia/export.h"

namespace quorvia::platform {

/// Insertion-ordered JSON-like value. A JSON null stands for the platform's
/// null object (NSNull); binary stands for data (NSData).
using Value = nlohmann::ordered_json;

/// Raw bytes (the platform's data object).
using Bytes = std::vector<std::uint8_t>;

/// Wraps bytes as a data value.
QUORVIA_EXPORT Value dataValue(Bytes bytes);

/// The value under `key` when `dictionary` is a dictionary holding that key;
/// nullptr (nil) otherwise. Never throws.
QUORVIA_EXPORT const Value* valueForKey(const Value& dictionary, std::string_view key);
QUORVIA_EXPORT const Value* valueForKey(const Value* dictionary, std::string_view key);

/// Formats a value as Foundation's "%@" does: strings as they are, numbers
/// "7" or "0.5", booleans "1"/"0", null "<null>", data "<0001abff 10>",
/// dictionaries and arrays in their multi-line property-list form.
QUORVIA_EXPORT std::string describe(const Value& value);
/// As above; nil formats as "(null)".
QUORVIA_EXPORT std::string describe(const Value* value);
QUORVIA_EXPORT std::string describe(const std::optional<Value>& value);
QUORVIA_EXPORT std::string describe(const std::optional<std::string>& value);

/// Lowercase hexadecimal of the bytes, two digits a byte, no separators.
QUORVIA_EXPORT std::string hexString(const Bytes& bytes);

/// Parses JSON text as the platform's JSON reader does with no options: the
/// top level must be an array or a dictionary (fragments are refused), the
/// text must be valid UTF-8 JSON. Returns nullopt on any failure; never throws.
QUORVIA_EXPORT std::optional<Value> parseJson(std::string_view text);

/// Serialises a value as compact JSON (data values are refused: nullopt).
QUORVIA_EXPORT std::optional<std::string> serializeJson(const Value& value);

}  // namespace quorvia::platform
