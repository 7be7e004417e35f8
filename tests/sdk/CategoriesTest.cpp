// The six notification categories and the request for push permission.

#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/Application.h"
#include "sdk/CategoriesManager.h"
#include "support/PlatformTest.h"

namespace quorvia {
namespace {

using platform::UserNotificationActionContext;

// The identifiers come back as replies, so they must be these exact code
// points, in this button order.
TEST(Categories, SixCategoriesWithTheirButtonsInOrder) {
  const std::vector<std::vector<std::string>> rows = {
      {"Yes.No", "Yes", "No"},
      {"No.Yes", "No", "Yes"},
      {"A.B", "A", "B"},
      {"emoji1.emoji2", "\xE2\x98\x9D\xEF\xB8\x8F",
       "\xE2\x9C\x8C\xEF\xB8\x8F"},  // U+261D U+FE0F, U+270C U+FE0F
      {"emojiA.emojiB", "\xF0\x9F\x85\xB0\xEF\xB8\x8F",
       "\xF0\x9F\x85\xB1\xEF\xB8\x8F"},                                 // U+1F170/1 U+FE0F
      {"thumbsup.thumbsdown", "\xF0\x9F\x91\x8D", "\xF0\x9F\x91\x8E"},  // U+1F44D, U+1F44E
  };
  const platform::CategorySet set = CategoriesManager().categories();
  ASSERT_EQ(set.count(), rows.size());
  for (const auto& row : rows) {
    const platform::NotificationCategory* category = set.categoryWithIdentifier(row[0]);
    ASSERT_NE(category, nullptr) << row[0];
    std::vector<std::string> buttons = {row[0]};
    for (const auto& action :
         category->actionsForContext(UserNotificationActionContext::kDefault)) {
      buttons.push_back(action.identifier());
      EXPECT_EQ(action.title(), action.identifier());
      EXPECT_EQ(action.activationMode(), platform::UserNotificationActivationMode::kBackground);
      EXPECT_FALSE(action.isDestructive());
      EXPECT_FALSE(action.isAuthenticationRequired());
    }
    EXPECT_EQ(buttons, row);
    EXPECT_TRUE(category->actionsForContext(UserNotificationActionContext::kMinimal).empty());
  }
}

class PushPermissionTest : public testing::PlatformTest {
 protected:
  platform::Application& app() { return platform::Application::sharedApplication(); }
};

// Every call registers the three types, whether or not anything changed,
// keeping the host's own categories; an absent current set gives none.
TEST_F(PushPermissionTest, EveryRequestRegistersAllTypesKeepingHostCategories) {
  const auto host = CategoriesManager().createCategoryWithActions({"Snooze"}, "host.own");
  struct Case {
    std::optional<platform::CategorySet> current;
    std::optional<std::size_t> categories;
  };
  for (const Case& c : {Case{platform::CategorySet{host}, 7}, Case{platform::CategorySet{host}, 7},
                        Case{std::nullopt, std::nullopt}}) {
    app().setCurrentUserNotificationSettings({7, c.current});
    const auto before = app().registeredUserNotificationSettings().size();
    QuorviaSDK::askUserForPushPermissions();
    const auto registered = app().registeredUserNotificationSettings();
    ASSERT_EQ(registered.size(), before + 1);
    EXPECT_EQ(registered.back().types, 7u);
    ASSERT_EQ(registered.back().categories.has_value(), c.categories.has_value());
    if (c.categories) {
      EXPECT_EQ(registered.back().categories->count(), *c.categories);
      EXPECT_TRUE(registered.back().categories->containsObject(host));
    }
  }
  EXPECT_TRUE(log_.lines().empty()) << "nothing is logged";
  app().setRespondsToRegisterUserNotificationSettings(false);
  QuorviaSDK::askUserForPushPermissions();
  EXPECT_EQ(app().registeredUserNotificationSettings().size(), 3u) << "a platform without the call";
}

}  // namespace
}  // namespace quorvia
