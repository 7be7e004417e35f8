#include "platform/Button.h"

namespace quorvia::platform {

Button::Button() {
  setTextAlignment(TextAlignment::kCenter);
  setAccessibilityRole(AccessibleRole::kPushButton);
}

void Button::addTarget(std::weak_ptr<View> target, std::string action) {
  target_ = std::move(target);
  action_ = std::move(action);
}

void Button::sendActions() {
  if (auto target = target_.lock()) target->performAction(action_, shared_from_this());
}

}  // namespace quorvia::platform
