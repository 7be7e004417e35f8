#include "ui/QVNotificationTextCell.h"

#include "ui/CellMask.h"

namespace quorvia {
namespace {
constexpr double kCornerRadius = 10.0;
constexpr unsigned kBottomCorners =
    platform::kRectCornerBottomLeft | platform::kRectCornerBottomRight;
}  // namespace

void QVNotificationTextCell::awakeFromNib() {
  TableViewCell::awakeFromNib();
  detail::scheduleContainerMask(std::static_pointer_cast<QVNotificationTextCell>(shared_from_this()),
                                kCornerRadius, kBottomCorners);
}

void QVNotificationTextCell::setSelected(bool selected, bool animated) {
  TableViewCell::setSelected(selected, animated);
}

bool QVNotificationTextCell::setOutlet(std::string_view name,
                                       const std::shared_ptr<platform::View>& view) {
  if (name == "containerView") {
    containerView_ = view;
    return true;
  }
  if (name == "customLabel") {
    customLabel_ = std::dynamic_pointer_cast<platform::Label>(view);
    return customLabel_ != nullptr;
  }
  return false;
}

}  // namespace quorvia
