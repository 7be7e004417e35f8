#pragma once
/// \file
/// Notification settings, categories and actions as the platform models them.
/// A host reports the user's answer to a permission request with
/// Application::setCurrentUserNotificationSettings(). Plain values with value
/// equality, so a set of categories can be merged and compared the way the
/// platform's set of category objects is.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "quorvia/export.h"

namespace quorvia::platform {

/// Bits of a settings' types.
enum UserNotificationType : std::uint32_t {
  kUserNotificationTypeNone = 0,
  kUserNotificationTypeBadge = 1,
  kUserNotificationTypeSound = 2,
  kUserNotificationTypeAlert = 4,
};

enum class UserNotificationActivationMode : int { kForeground = 0, kBackground = 1 };
enum class UserNotificationActionContext : int { kDefault = 0, kMinimal = 1 };

/// A notification button (UIMutableUserNotificationAction).
class QUORVIA_EXPORT NotificationAction {
 public:
  const std::string& identifier() const { return identifier_; }
  void setIdentifier(std::string v) { identifier_ = std::move(v); }
  const std::string& title() const { return title_; }
  void setTitle(std::string v) { title_ = std::move(v); }
  UserNotificationActivationMode activationMode() const { return activationMode_; }
  void setActivationMode(UserNotificationActivationMode v) { activationMode_ = v; }
  bool isDestructive() const { return destructive_; }
  void setDestructive(bool v) { destructive_ = v; }
  bool isAuthenticationRequired() const { return authenticationRequired_; }
  void setAuthenticationRequired(bool v) { authenticationRequired_ = v; }

  friend bool operator==(const NotificationAction&, const NotificationAction&) = default;
  friend auto operator<=>(const NotificationAction&, const NotificationAction&) = default;

 private:
  std::string identifier_;
  std::string title_;
  UserNotificationActivationMode activationMode_ = UserNotificationActivationMode::kForeground;
  bool destructive_ = false;
  bool authenticationRequired_ = false;
};

/// A group of actions under one identifier (UIMutableUserNotificationCategory).
class QUORVIA_EXPORT NotificationCategory {
 public:
  const std::string& identifier() const { return identifier_; }
  void setIdentifier(std::string v) { identifier_ = std::move(v); }
  void setActions(std::vector<NotificationAction> actions, UserNotificationActionContext context);
  /// The actions set for `context`; empty when none were set.
  const std::vector<NotificationAction>& actionsForContext(
      UserNotificationActionContext context) const;

  friend bool operator==(const NotificationCategory&, const NotificationCategory&) = default;
  friend auto operator<=>(const NotificationCategory&, const NotificationCategory&) = default;

 private:
  std::string identifier_;
  std::map<UserNotificationActionContext, std::vector<NotificationAction>> actions_;
};

/// An unordered set of categories with value equality (NSSet).
class QUORVIA_EXPORT CategorySet {
 public:
  CategorySet() = default;
  CategorySet(std::initializer_list<NotificationCategory> categories);

  /// Adds unless an equal category is already in the set.
  void addObject(NotificationCategory category);
  bool containsObject(const NotificationCategory& category) const;
  /// The union, the receiver's members first (setByAddingObjectsFromSet:).
  CategorySet setByAddingObjectsFromSet(const CategorySet& other) const;
  /// Same members, whatever the order (isEqualToSet:).
  bool isEqualToSet(const CategorySet& other) const;
  std::size_t count() const { return members_.size(); }
  /// Members in insertion order; callers must not rely on it (a set has none).
  const std::vector<NotificationCategory>& allObjects() const { return members_; }
  /// The member with this identifier, or nullptr.
  const NotificationCategory* categoryWithIdentifier(const std::string& identifier) const;

 private:
  std::vector<NotificationCategory> members_;
};

/// Notification settings: types and an optional (possibly absent) category set.
struct QUORVIA_EXPORT NotificationSettings {
  std::uint32_t types = 0;
  std::optional<CategorySet> categories;

  static NotificationSettings settingsForTypes(std::uint32_t types,
                                               std::optional<CategorySet> categories) {
    return NotificationSettings{types, std::move(categories)};
  }
};

}  // namespace quorvia::platform
