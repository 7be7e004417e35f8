#pragma once

#include <algorithm>
#include <array>
#include <string_view>

namespace quorvia::devserver {

// The notification categories the SDK registers; a pushed poll names one of them so the
// device shows its answer buttons.
inline constexpr std::array<std::string_view, 6> kCategories = {
    "Yes.No", "No.Yes", "A.B", "emoji1.emoji2", "emojiA.emojiB", "thumbsup.thumbsdown"};

inline bool isCategory(std::string_view name) {
  return std::find(kCategories.begin(), kCategories.end(), name) != kCategories.end();
}

// The reply a device sends when the banner is closed without an answer.
inline constexpr std::string_view kDismissReply = "Dismiss";

}  // namespace quorvia::devserver
