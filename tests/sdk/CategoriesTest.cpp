#include <gtest/gtest.h>

#include "sdk/CategoriesManager.h"
#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/Application.h"
#include "support/PlatformTest.h"

namespace quorvia {
namespace {

using platform::UserNotificationActionContext;

// The identifiers come back as replies, so they must be these exact code points.
TEST(CategoryTable, SixCategoriesWithTheirButtonsInOrder) {
  struct Row {
    const char* identifier;
    std::u16string first, second;  // UTF-16, as the platform stores the titles
  };
  const Row rows[] = {
      {"Yes.No", u"Yes", u"No"},
      {"No.Yes", u"No", u"Yes"},
      {"A.B", u"A", u"B"},
      {"emoji1.emoji2", u"\u261D\uFE0F", u"\u270C\uFE0F"},
      {"emojiA.emojiB", u"\U0001F170\uFE0F", u"\U0001F171\uFE0F"},
      {"thumbsup.thumbsdown", u"\U0001F44D", u"\U0001F44E"},
  };
  const auto toUtf8 = [](const std::u16string& s) {
    std::string out;
    for (std::size_t i = 0; i < s.size(); ++i) {
      char32_t cp = s[i];
      if (cp >= 0xD800 && cp < 0xDC00) cp = 0x10000 + ((cp - 0xD800) << 10) + (s[++i] - 0xDC00);
      if (cp < 0x80) out += static_cast<char>(cp);
      else if (cp < 0x800) out += {static_cast<char>(0xC0 | cp >> 6), static_cast<char>(0x80 | (cp & 0x3F))};
      else if (cp < 0x10000)
        out += {static_cast<char>(0xE0 | cp >> 12), static_cast<char>(0x80 | ((cp >> 6) & 0x3F)),
                static_cast<char>(0x80 | (cp & 0x3F))};
      else
        out += {static_cast<char>(0xF0 | cp >> 18), static_cast<char>(0x80 | ((cp >> 12) & 0x3F)),
                static_cast<char>(0x80 | ((cp >> 6) & 0x3F)), static_cast<char>(0x80 | (cp & 0x3F))};
    }
    return out;
  };
  EXPECT_EQ(rows[3].first.size(), 2u);
  EXPECT_EQ(rows[4].first.size(), 3u);
  EXPECT_EQ(rows[5].first.size(), 2u);

  const platform::CategorySet set = CategoriesManager().categories();
  ASSERT_EQ(set.count(), 6u);
  for (const auto& row : rows) {
    const platform::NotificationCategory* category = set.categoryWithIdentifier(row.identifier);
    ASSERT_NE(category, nullptr) << row.identifier;
    const auto& actions = category->actionsForContext(UserNotificationActionContext::kDefault);
    ASSERT_EQ(actions.size(), 2u) << row.identifier;
    EXPECT_EQ(actions[0].identifier(), toUtf8(row.first)) << row.identifier;
    EXPECT_EQ(actions[1].identifier(), toUtf8(row.second)) << row.identifier;
    for (const auto& action : actions) {
      EXPECT_EQ(action.title(), action.identifier());
      EXPECT_EQ(action.activationMode(), platform::UserNotificationActivationMode::kBackground);
      EXPECT_FALSE(action.isDestructive());
      EXPECT_FALSE(action.isAuthenticationRequired());
    }
    EXPECT_TRUE(category->actionsForContext(UserNotificationActionContext::kMinimal).empty());
  }
  EXPECT_TRUE(CategoriesManager().categories().isEqualToSet(set)) << "each call builds equal values";
}

class PushPermissionTest : public testing::PlatformTest {
 protected:
  platform::Application& app() { return platform::Application::sharedApplication(); }
};

TEST_F(PushPermissionTest, RegistersEveryCallWithFullTypesKeepingHostCategories) {
  const auto host = CategoriesManager().createCategoryWithActions({"Snooze"}, "host.own");
  app().setCurrentUserNotificationSettings({7, platform::CategorySet{host}});
  QuorviaSDK::askUserForPushPermissions();
  QuorviaSDK::askUserForPushPermissions();
  const auto registered = app().registeredUserNotificationSettings();
  ASSERT_EQ(registered.size(), 2u) << "registers even when nothing changed";
  for (const auto& settings : registered) {
    EXPECT_EQ(settings.types, 7u);
    ASSERT_TRUE(settings.categories);
    EXPECT_EQ(settings.categories->count(), 7u);
    EXPECT_TRUE(settings.categories->containsObject(host));
  }
  EXPECT_TRUE(log_.lines().empty()) << "nothing is logged";
}

TEST_F(PushPermissionTest, AbsentCurrentSetRegistersTypesWithoutCategories) {
  app().setCurrentUserNotificationSettings({0, std::nullopt});
  QuorviaSDK::askUserForPushPermissions();
  const auto registered = app().registeredUserNotificationSettings();
  ASSERT_EQ(registered.size(), 1u);
  EXPECT_EQ(registered[0].types, 7u);
  EXPECT_FALSE(registered[0].categories);
}

TEST_F(PushPermissionTest, PlatformWithoutSettingsRegistrationDoesNothing) {
  app().setRespondsToRegisterUserNotificationSettings(false);
  QuorviaSDK::askUserForPushPermissions();
  EXPECT_TRUE(app().registeredUserNotificationSettings().empty());
}

}  // namespace
}  // namespace quorvia
