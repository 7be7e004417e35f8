#include "sdk/CategoriesManager.h"

#include "quorvia/platform/Value.h"

namespace quorvia {
namespace {

using platform::Value;

// Each row: category identifier, then its two actions in button order. The
// emoji carry the emoji-presentation selector U+FE0F where the table gives it.
Value categoryDescriptions() {
  const auto row = [](const char* identifier, const char* first, const char* second) {
    return Value{{"identifier", identifier}, {"actions", Value::array({first, second})}};
  };
  return Value::array({
      row("Yes.No", "Yes", "No"),
      row("No.Yes", "No", "Yes"),
      row("A.B", "A", "B"),
      row("emoji1.emoji2", "\u261D\uFE0F", "\u270C\uFE0F"),
      row("emojiA.emojiB", "\U0001F170\uFE0F", "\U0001F171\uFE0F"),
      row("thumbsup.thumbsdown", "\U0001F44D", "\U0001F44E"),
  });
}

}  // namespace

platform::CategorySet CategoriesManager::categories() const {
  platform::CategorySet set;
  for (const Value& description : categoryDescriptions()) {
    std::vector<std::string> actions;
    for (const Value& text : description["actions"]) actions.push_back(text.get<std::string>());
    set.addObject(createCategoryWithActions(actions, description["identifier"].get<std::string>()));
  }
  return set;
}

platform::NotificationCategory CategoriesManager::createCategoryWithActions(
    const std::vector<std::string>& actions, const std::string& identifier) const {
  std::vector<platform::NotificationAction> built;
  built.reserve(actions.size());
  for (const std::string& text : actions) {
    platform::NotificationAction action;
    action.setActivationMode(platform::UserNotificationActivationMode::kBackground);
    action.setTitle(text);
    action.setIdentifier(text);
    action.setDestructive(false);
    action.setAuthenticationRequired(false);
    built.push_back(std::move(action));
  }
  platform::NotificationCategory category;
  category.setIdentifier(identifier);
  category.setActions(std::move(built), platform::UserNotificationActionContext::kDefault);
  return category;
}

}  // namespace quorvia
