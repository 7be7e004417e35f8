#pragma once
/// \file
/// What the poll banner reports about the user's gestures.

#include <memory>
#include <optional>
#include <string>

namespace quorvia {

class QVNotificationView;

/// Receives the banner's events on the main thread. The banner holds its
/// delegate weakly.
class QVNotificationViewDelegate {
 public:
  virtual ~QVNotificationViewDelegate() = default;
  /// The user tapped the card (anywhere but the close button).
  virtual void notificationViewDidPressExpand(const std::shared_ptr<QVNotificationView>& view) = 0;
  /// The user chose an option: its text as identifier and its link, if any.
  virtual void notificationView(const std::shared_ptr<QVNotificationView>& view,
                                const std::optional<std::string>& identifier,
                                const std::optional<std::string>& link) = 0;
  /// The user pressed the close button.
  virtual void notificationViewDidPressClose(const std::shared_ptr<QVNotificationView>& view) = 0;
};

}  // namespace quorvia
