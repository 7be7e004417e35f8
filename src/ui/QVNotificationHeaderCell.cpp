#include "ui/QVNotificationHeaderCell.h"

#include "ui/CellMask.h"

namespace quorvia {
namespace {
constexpr double kCornerRadius = 10.0;
constexpr unsigned kTopCorners = platform::kRectCornerTopLeft | platform::kRectCornerTopRight;
}  // namespace

void QVNotificationHeaderCell::awakeFromNib() {
  TableViewCell::awakeFromNib();
  detail::scheduleContainerMask(std::static_pointer_cast<QVNotificationHeaderCell>(shared_from_this()),
                                kCornerRadius, kTopCorners);
}

void QVNotificationHeaderCell::closeButtonPressed() {
  if (auto delegate = delegate_.lock()) {
    delegate->headerCell(std::static_pointer_cast<QVNotificationHeaderCell>(shared_from_this()),
                         closeButton_);
  }
}

bool QVNotificationHeaderCell::setOutlet(std::string_view name,
                                         const std::shared_ptr<platform::View>& view) {
  if (name == "containerView") {
    containerView_ = view;
    return true;
  }
  if (name == "closeButton") {
    closeButton_ = std::dynamic_pointer_cast<platform::Button>(view);
    return closeButton_ != nullptr;
  }
  return false;
}

bool QVNotificationHeaderCell::performAction(std::string_view selector,
                                             const std::shared_ptr<void>&) {
  if (selector != "closeButtonPressed:") return false;
  closeButtonPressed();
  return true;
}

}  // namespace quorvia
