#include "SdkForm.h"

#include <algorithm>
#include <optional>

namespace quorvia::devserver {

namespace {

// The expected key (not yet seen) whose entry starts at `pos`, if any.
std::optional<std::string_view> keyStartingAt(std::string_view body, size_t pos,
                                              const std::vector<std::string_view>& keys,
                                              const std::map<std::string, std::string>& seen) {
  if (pos != 0 && body[pos - 1] != '&') return std::nullopt;
  for (std::string_view key : keys) {
    if (seen.contains(std::string(key))) continue;
    if (body.substr(pos).starts_with(key) && body.size() > pos + key.size() &&
        body[pos + key.size()] == '=') {
      return key;
    }
  }
  return std::nullopt;
}

}  // namespace

std::map<std::string, std::string> parseSdkForm(std::string_view body,
                                                const std::vector<std::string_view>& keys) {
  std::map<std::string, std::string> entries;
  std::string* current = nullptr;
  size_t valueStart = 0;
  for (size_t pos = 0; pos < body.size(); ++pos) {
    std::optional<std::string_view> key = keyStartingAt(body, pos, keys, entries);
    if (!key) continue;
    if (current != nullptr) *current = body.substr(valueStart, pos - 1 - valueStart);
    current = &entries[std::string(*key)];
    valueStart = pos + key->size() + 1;
    pos = valueStart - 1;
  }
  if (current != nullptr) *current = body.substr(valueStart);
  return entries;
}

}  // namespace quorvia::devserver
