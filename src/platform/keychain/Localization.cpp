#include "platform/Localization.h"

#include "quorvia/platform/Environment.h"

namespace quorvia::platform {

std::string localizedStringForKey(const std::string& key, const std::optional<std::string>& value,
                                  const std::string& table) {
  if (auto text = environment().localizedString(table, key)) return *text;
  return value && !value->empty() ? *value : key;
}

}  // namespace quorvia::platform
