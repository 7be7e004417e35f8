#pragma once
/// \file
/// The six notification categories whose buttons answer a poll.

#include <string>
#include <vector>

#include "quorvia/export.h"
#include "quorvia/platform/NotificationSettings.h"

namespace quorvia {

/// Builds the library's notification categories. Stateless; every call makes
/// new category values.
class QUORVIA_EXPORT CategoriesManager final {
 public:
  /// The six categories "Yes.No", "No.Yes", "A.B", "emoji1.emoji2",
  /// "emojiA.emojiB" and "thumbsup.thumbsdown", two actions each.
  platform::CategorySet categories() const;

  /// One category whose actions are made from `actions` in order: identifier
  /// and title the text itself, background activation, neither destructive
  /// nor requiring authentication, set for the default context.
  platform::NotificationCategory createCategoryWithActions(const std::vector<std::string>& actions,
                                                           const std::string& identifier) const;
};

}  // namespace quorvia
