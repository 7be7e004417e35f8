#pragma once
/// \file
/// The top row of the banner's card, with the close button.

#include <memory>

#include "quorvia/export.h"
#include "platform/Button.h"
#include "platform/TableView.h"
#include "ui/QVNotificationHeaderCellDelegate.h"

namespace quorvia {

/// Loaded from the layout file "QVNotificationHeaderCell". Main thread.
class QUORVIA_EXPORT QVNotificationHeaderCell final : public platform::TableViewCell {
 public:
  /// The visible header body, rounded at its top corners once loaded.
  const std::shared_ptr<platform::View>& containerView() const { return containerView_; }
  const std::shared_ptr<platform::Button>& closeButton() const { return closeButton_; }
  std::shared_ptr<QVNotificationHeaderCellDelegate> delegate() const { return delegate_.lock(); }
  void setDelegate(std::weak_ptr<QVNotificationHeaderCellDelegate> d) { delegate_ = std::move(d); }

  /// Schedules the top-corner mask (radius 10) for after the layout pass.
  void awakeFromNib() override;
  /// Tells the delegate, with this cell and its close button (not the sender).
  void closeButtonPressed();

  bool setOutlet(std::string_view name, const std::shared_ptr<platform::View>& view) override;
  bool performAction(std::string_view selector, const std::shared_ptr<void>& sender) override;

 private:
  std::shared_ptr<platform::View> containerView_;
  std::shared_ptr<platform::Button> closeButton_;
  std::weak_ptr<QVNotificationHeaderCellDelegate> delegate_;
};

}  // namespace quorvia
