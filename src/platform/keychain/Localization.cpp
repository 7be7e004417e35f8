#include "quorvia/platform/Localization.h"

#include <map>
#include <mutex>

namespace quorvia::platform {
namespace {

struct Tables {
  std::mutex mu;
  std::map<std::string, Value, std::less<>> byName;
};

Tables& tables() {
  static auto* t = new Tables;
  return *t;
}

}  // namespace

std::string localizedStringForKey(const std::string& key, const std::optional<std::string>& value,
                                  const std::string& table) {
  {
    std::lock_guard lock(tables().mu);
    if (auto it = tables().byName.find(table); it != tables().byName.end()) {
      if (const Value* text = valueForKey(it->second, key); text && text->is_string()) {
        return text->get<std::string>();
      }
    }
  }
  return value && !value->empty() ? *value : key;
}

void setLocalizedStringTable(const std::string& table, Value strings) {
  std::lock_guard lock(tables().mu);
  tables().byName[table] = std::move(strings);
}

}  // namespace quorvia::platform
