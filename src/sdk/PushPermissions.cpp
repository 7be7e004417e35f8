#include "quorvia/CategoriesManager.h"
#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/Application.h"

namespace quorvia {

void QuorviaSDK::askUserForPushPermissions() {
  auto& app = platform::Application::sharedApplication();
  if (!app.respondsToRegisterUserNotificationSettings()) return;
  const platform::CategorySet library = CategoriesManager().categories();
  const auto current = app.currentUserNotificationSettings().categories;
  // An absent current set gives an absent union: the three types, no categories.
  std::optional<platform::CategorySet> merged;
  if (current) merged = current->setByAddingObjectsFromSet(library);
  // Registers every time, with full types, whether or not anything changed.
  app.registerUserNotificationSettings(platform::NotificationSettings::settingsForTypes(
      platform::kUserNotificationTypeBadge | platform::kUserNotificationTypeSound |
          platform::kUserNotificationTypeAlert,
      merged));
}

}  // namespace quorvia
