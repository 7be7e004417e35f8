#include "quorvia/platform/NotificationSettings.h"

#include <algorithm>

namespace quorvia::platform {

void NotificationCategory::setActions(std::vector<NotificationAction> actions,
                                      UserNotificationActionContext context) {
  actions_[context] = std::move(actions);
}

const std::vector<NotificationAction>& NotificationCategory::actionsForContext(
    UserNotificationActionContext context) const {
  static const std::vector<NotificationAction> kNone;
  const auto it = actions_.find(context);
  return it == actions_.end() ? kNone : it->second;
}

CategorySet::CategorySet(std::initializer_list<NotificationCategory> categories) {
  for (const auto& c : categories) addObject(c);
}

void CategorySet::addObject(NotificationCategory category) {
  if (!containsObject(category)) members_.push_back(std::move(category));
}

bool CategorySet::containsObject(const NotificationCategory& category) const {
  return std::find(members_.begin(), members_.end(), category) != members_.end();
}

CategorySet CategorySet::setByAddingObjectsFromSet(const CategorySet& other) const {
  CategorySet result = *this;
  for (const auto& c : other.members_) result.addObject(c);
  return result;
}

bool CategorySet::isEqualToSet(const CategorySet& other) const {
  if (count() != other.count()) return false;
  return std::all_of(members_.begin(), members_.end(),
                     [&](const NotificationCategory& c) { return other.containsObject(c); });
}

const NotificationCategory* CategorySet::categoryWithIdentifier(
    const std::string& identifier) const {
  for (const auto& c : members_)
    if (c.identifier() == identifier) return &c;
  return nullptr;
}

}  // namespace quorvia::platform
