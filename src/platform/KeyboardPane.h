#pragma once
/// \file
/// A part of the window that keyboard focus enters as a whole (the banner),
/// as a desktop moves focus between the panes of a window with F6. The host
/// window routes keys and keeps where focus is; the pane says which of its
/// elements focus visits, in which order, and draws the focus ring. Main
/// thread.

#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

namespace quorvia::platform {

class View;

class KeyboardPane {
 public:
  virtual ~KeyboardPane() = default;

  /// Whether focus may be in it now: it is shown and not going away.
  virtual bool acceptsKeyboardFocus() const = 0;
  /// Whether focus stays in it while it accepts focus: the window behind it
  /// takes no input then, so every key is the pane's.
  virtual bool isModal() const = 0;
  /// The views of its focusable elements, in the order Tab visits them.
  /// Each is an element of the accessibility tree; pressing one does what a
  /// tap on it does.
  virtual std::vector<std::shared_ptr<View>> focusOrder() = 0;
  /// Where focus lands when the pane takes it by itself (a modal pane), as
  /// an index into focusOrder().
  virtual std::size_t defaultFocus() = 0;
  /// What Escape presses, as an index into focusOrder(); none: Escape is
  /// passed.
  virtual std::optional<std::size_t> cancelElement() = 0;
  /// Draws the focus ring around focusOrder()[index]; nullopt removes it.
  virtual void showFocusRing(std::optional<std::size_t> index) = 0;
};

}  // namespace quorvia::platform
