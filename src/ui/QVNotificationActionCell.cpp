#include "ui/QVNotificationActionCell.h"

#include "ui/CellMask.h"

namespace quorvia {
namespace {
constexpr unsigned kTopCorners = platform::kRectCornerTopLeft | platform::kRectCornerTopRight;
constexpr unsigned kBottomCorners =
    platform::kRectCornerBottomLeft | platform::kRectCornerBottomRight;
}  // namespace

void QVNotificationActionCell::setTopMask() { setMaskWithRadius(kCornerRadius, kTopCorners); }

void QVNotificationActionCell::setBottomMask() { setMaskWithRadius(kCornerRadius, kBottomCorners); }

void QVNotificationActionCell::setNoMask() {
  // Both calls are intended although the second mask replaces the first.
  setMaskWithRadius(0.0, kTopCorners);
  setMaskWithRadius(0.0, kBottomCorners);
}

void QVNotificationActionCell::setMaskWithRadius(double radius, unsigned corners) {
  detail::scheduleContainerMask(
      std::static_pointer_cast<QVNotificationActionCell>(shared_from_this()), radius, corners);
}

void QVNotificationActionCell::touchesBegan(const platform::TouchSet& touches) {
  TableViewCell::touchesBegan(touches);
  if (containerView_) containerView_->setBackgroundColor(platform::Color::grayColor());
}

void QVNotificationActionCell::touchesEnded(const platform::TouchSet& touches) {
  TableViewCell::touchesEnded(touches);
  if (containerView_) containerView_->setBackgroundColor(platform::Color::whiteColor());
}

void QVNotificationActionCell::touchesCancelled(const platform::TouchSet& touches) {
  TableViewCell::touchesCancelled(touches);
  if (containerView_) containerView_->setBackgroundColor(platform::Color::whiteColor());
}

bool QVNotificationActionCell::setOutlet(std::string_view name,
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
