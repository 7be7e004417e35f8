#include "CommandFields.h"

#include <cctype>

namespace quorvia::sim {
namespace {

std::string quoted(std::string_view key) { return "\"" + std::string(key) + "\""; }

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  const char lower = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (lower >= 'a' && lower <= 'f') return lower - 'a' + 10;
  return -1;
}

}  // namespace

const platform::Value* field(const platform::Value& command, std::string_view key) {
  const platform::Value* value = platform::valueForKey(command, key);
  return value && !value->is_null() ? value : nullptr;
}

std::string requiredString(const platform::Value& command, std::string_view key) {
  const platform::Value* value = field(command, key);
  if (!value) throw CommandError(quoted(key) + " is required");
  if (!value->is_string()) throw CommandError(quoted(key) + " must be a string");
  return value->get<std::string>();
}

std::optional<std::string> optionalString(const platform::Value& command, std::string_view key) {
  if (!field(command, key)) return std::nullopt;
  return requiredString(command, key);
}

bool optionalBool(const platform::Value& command, std::string_view key, bool fallback) {
  const platform::Value* value = field(command, key);
  if (!value) return fallback;
  if (!value->is_boolean()) throw CommandError(quoted(key) + " must be true or false");
  return value->get<bool>();
}

double optionalNumber(const platform::Value& command, std::string_view key, double fallback) {
  const platform::Value* value = field(command, key);
  if (!value) return fallback;
  if (!value->is_number()) throw CommandError(quoted(key) + " must be a number");
  return value->get<double>();
}

std::optional<platform::Value> optionalDictionary(const platform::Value& command,
                                                  std::string_view key) {
  const platform::Value* value = field(command, key);
  if (!value) return std::nullopt;
  if (!value->is_object()) throw CommandError(quoted(key) + " must be an object");
  return *value;
}

std::optional<platform::Bytes> optionalHex(const platform::Value& command, std::string_view key) {
  const std::optional<std::string> text = optionalString(command, key);
  if (!text) return std::nullopt;
  if (text->size() % 2 != 0)
    throw CommandError(quoted(key) + " must have an even number of digits");
  platform::Bytes bytes;
  bytes.reserve(text->size() / 2);
  for (std::size_t i = 0; i < text->size(); i += 2) {
    const int high = hexDigit((*text)[i]);
    const int low = hexDigit((*text)[i + 1]);
    if (high < 0 || low < 0) throw CommandError(quoted(key) + " must be hexadecimal");
    bytes.push_back(static_cast<std::uint8_t>(high * 16 + low));
  }
  return bytes;
}

}  // namespace quorvia::sim
