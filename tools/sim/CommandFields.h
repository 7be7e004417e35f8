#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "quorvia/platform/Value.h"

namespace quorvia::sim {

// A command the simulator cannot carry out; its message becomes the "error" event.
class CommandError final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Readers of a command's fields. Each throws CommandError naming the field when it has the
// wrong type; "optional" readers treat a missing field and null alike.
const platform::Value* field(const platform::Value& command, std::string_view key);
std::string requiredString(const platform::Value& command, std::string_view key);
std::optional<std::string> optionalString(const platform::Value& command, std::string_view key);
bool optionalBool(const platform::Value& command, std::string_view key, bool fallback);
double optionalNumber(const platform::Value& command, std::string_view key, double fallback);
// A dictionary field, or nil.
std::optional<platform::Value> optionalDictionary(const platform::Value& command,
                                                  std::string_view key);
// Bytes written as hexadecimal text (two digits a byte, either case), or nil.
std::optional<platform::Bytes> optionalHex(const platform::Value& command, std::string_view key);

}  // namespace quorvia::sim
