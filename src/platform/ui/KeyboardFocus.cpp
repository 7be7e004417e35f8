#include "platform/ui/KeyboardFocus.h"

#include "platform/Window.h"

namespace quorvia::platform::detail {
namespace {

// Keys with Control, Alt or the logo key are shortcuts: never the banner's
// to move or press with, so a collapsed banner passes them on.
bool plain(KeyModifiers m) { return !m.control && !m.alt && !m.super; }

}  // namespace

KeyboardFocus::Top KeyboardFocus::top() const {
  const auto& views = window_.subviews();
  for (auto it = views.rbegin(); it != views.rend(); ++it) {
    KeyboardPane* pane = (*it)->keyboardPane();
    if (pane && pane->acceptsKeyboardFocus()) return {*it, pane};
  }
  return {};
}

void KeyboardFocus::sync() {
  const Top now = top();
  auto before = paneView_.lock();
  if (before && before != now.view) {
    // The pane focus was in went (or another came over it): its ring goes too.
    if (KeyboardPane* pane = before->keyboardPane()) pane->showFocusRing(std::nullopt);
    inside_ = false;
  }
  paneView_ = now.view;
  if (!now.pane) {
    inside_ = false;
    return;
  }
  if (!inside_ && now.pane->isModal()) {
    // A modal pane holds the keyboard as its backdrop holds the pointer; the
    // ring waits for a key, as it does after a press of the pointer.
    inside_ = true;
    index_ = now.pane->defaultFocus();
    ringVisible_ = false;
  }
  const std::size_t count = now.pane->focusOrder().size();
  if (count == 0) {
    inside_ = false;
  } else if (index_ >= count) {
    index_ = count - 1;
  }
}

void KeyboardFocus::leave(KeyboardPane* pane) {
  inside_ = false;
  ringVisible_ = false;
  if (pane) pane->showFocusRing(std::nullopt);
}

void KeyboardFocus::drawRing(KeyboardPane& pane) {
  pane.showFocusRing(inside_ && ringVisible_ ? std::optional<std::size_t>(index_) : std::nullopt);
}

void KeyboardFocus::move(KeyboardPane& pane, int step) {
  const auto count = static_cast<long>(pane.focusOrder().size());
  if (count == 0) return;
  index_ = static_cast<std::size_t>(((static_cast<long>(index_) + step) % count + count) % count);
  ringVisible_ = true;
}

void KeyboardFocus::press(KeyboardPane& pane, std::optional<std::size_t> index) {
  const auto order = pane.focusOrder();
  if (!index || *index >= order.size()) return;
  ringVisible_ = true;
  drawRing(pane);
  // The same path as a tap: the option's reply, the card's expansion, the
  // close control's dismissal. The pane may go or change meanwhile.
  window_.press(order[*index]);
  sync();
}

bool KeyboardFocus::enter() {
  window_.layoutIfNeeded();
  sync();
  const Top now = top();
  if (!now.pane || now.pane->focusOrder().empty()) return false;
  if (!inside_) index_ = 0;
  inside_ = true;
  ringVisible_ = true;
  drawRing(*now.pane);
  return true;
}

EventAnswer KeyboardFocus::keyDown(Key key, KeyModifiers modifiers) {
  window_.layoutIfNeeded();
  sync();
  const Top now = top();
  if (!now.pane) return EventAnswer::kPassed;
  KeyboardPane& pane = *now.pane;
  if (!inside_) {
    if (key != Key::kF6 || !plain(modifiers)) return EventAnswer::kPassed;
    enter();
    return EventAnswer::kTaken;
  }
  // Focus is in the pane: a modal one takes every key, others only theirs.
  const auto mine = pane.isModal() ? EventAnswer::kTaken : EventAnswer::kPassed;
  if (!plain(modifiers)) return mine;
  const bool shift = modifiers.shift;
  switch (key) {
    case Key::kF6:
      if (pane.isModal()) {
        ringVisible_ = true;  // focus stays; show where
      } else {
        leave(&pane);
        return EventAnswer::kTaken;
      }
      break;
    case Key::kTab:
      move(pane, shift ? -1 : 1);
      break;
    case Key::kDown:
    case Key::kRight:
    case Key::kUp:
    case Key::kLeft:
      if (shift) return mine;
      move(pane, key == Key::kDown || key == Key::kRight ? 1 : -1);
      break;
    case Key::kHome:
    case Key::kEnd:
      if (shift) return mine;
      index_ = key == Key::kHome ? 0 : pane.focusOrder().size() - 1;
      ringVisible_ = true;
      break;
    case Key::kEnter:
    case Key::kSpace:
      press(pane, index_);
      return EventAnswer::kTaken;
    case Key::kEscape: {
      const auto cancel = pane.cancelElement();
      if (!cancel) return mine;
      index_ = *cancel;
      press(pane, cancel);
      return EventAnswer::kTaken;
    }
    case Key::kOther:
      return mine;
  }
  drawRing(pane);
  return EventAnswer::kTaken;
}

void KeyboardFocus::pointerPressed(bool taken) {
  sync();
  const Top now = top();
  if (!inside_ || !now.pane) return;
  if (taken || now.pane->isModal()) {
    // The pointer is in use: focus stays where it is, its ring waits for a key.
    ringVisible_ = false;
    drawRing(*now.pane);
  } else {
    leave(now.pane);
  }
}

bool KeyboardFocus::focus(const View& view) {
  window_.layoutIfNeeded();
  sync();
  const Top now = top();
  if (!now.pane) return false;
  const auto order = now.pane->focusOrder();
  for (std::size_t i = 0; i < order.size(); ++i) {
    if (order[i].get() != &view) continue;
    inside_ = true;
    index_ = i;
    ringVisible_ = true;
    drawRing(*now.pane);
    return true;
  }
  return false;
}

std::vector<std::shared_ptr<View>> KeyboardFocus::focusable() {
  const Top now = top();
  return now.pane ? now.pane->focusOrder() : std::vector<std::shared_ptr<View>>{};
}

std::shared_ptr<View> KeyboardFocus::focused() {
  const Top now = top();
  if (!inside_ || !now.pane || now.view != paneView_.lock()) return nullptr;
  const auto order = now.pane->focusOrder();
  return index_ < order.size() ? order[index_] : nullptr;
}

std::shared_ptr<View> KeyboardFocus::modalPane() {
  const Top now = top();
  return now.pane && now.pane->isModal() ? now.view : nullptr;
}

}  // namespace quorvia::platform::detail
