#pragma once
// Internal: where keyboard focus is among a window's panes (the banner) and
// what each key does there. The host window hands it every key; the pane on
// top that accepts focus says what focus visits and draws the ring. Main
// thread.

#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

#include "platform/KeyboardPane.h"
#include "quorvia/platform/HostWindow.h"

namespace quorvia::platform {

class View;
class Window;

namespace detail {

class KeyboardFocus final {
 public:
  explicit KeyboardFocus(Window& window) : window_(window) {}

  /// A key went down: moves focus, presses, or passes it (see HostWindow).
  EventAnswer keyDown(Key key, KeyModifiers modifiers);
  /// Focus enters the top pane at its first element, ring shown; false when
  /// no pane accepts focus.
  bool enter();
  /// A pointer press began: on the SDK's content (`taken`) it hides the
  /// ring; on the host's content it takes focus out of a pane that lets it.
  void pointerPressed(bool taken);
  /// Moves focus to `view` with the ring shown; false when the top pane
  /// does not offer it.
  bool focus(const View& view);
  /// Catches up with the window: a pane that went or stopped taking focus
  /// loses it, a modal pane takes it.
  void sync();

  bool inside() const { return inside_; }
  /// The views focus can be on now, and the one it is on (null: none).
  std::vector<std::shared_ptr<View>> focusable();
  std::shared_ptr<View> focused();
  /// The pane that holds focus while it is modal (null: none).
  std::shared_ptr<View> modalPane();

 private:
  struct Top {
    std::shared_ptr<View> view;
    KeyboardPane* pane = nullptr;
  };
  // The front-most pane that accepts focus.
  Top top() const;
  void leave(KeyboardPane* pane);
  // Moves focus by `step` in the pane's order, wrapping.
  void move(KeyboardPane& pane, int step);
  void press(KeyboardPane& pane, std::optional<std::size_t> index);
  void drawRing(KeyboardPane& pane);

  Window& window_;
  std::weak_ptr<View> paneView_;
  bool inside_ = false;
  std::size_t index_ = 0;
  bool ringVisible_ = false;
};

}  // namespace detail
}  // namespace quorvia::platform
