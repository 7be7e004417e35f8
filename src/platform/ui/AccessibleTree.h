#pragma once
// Internal: the accessibility tree of a window, the elements on screen now,
// each with the view it stands for and an identity that lasts as long as the
// view does. Main thread.

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "quorvia/platform/AccessibleElement.h"

namespace quorvia::platform {

class View;
class Window;

namespace detail {

class KeyboardFocus;

class AccessibleTree final {
 public:
  struct Node {
    AccessibleElement element;
    std::shared_ptr<View> view;
  };
  struct Snapshot {
    std::vector<Node> nodes;  // parents before their children
    /// Whether a frame or an alpha on the way is still moving.
    bool animating = false;
  };

  /// The elements of `window` as they are on screen now; `focus` says which
  /// can take keyboard focus and which has it.
  Snapshot collect(Window& window, KeyboardFocus& focus);
  /// Just the elements.
  std::vector<AccessibleElement> elements(Window& window, KeyboardFocus& focus);

 private:
  struct Known {
    std::weak_ptr<View> view;
    std::uint64_t id = 0;
  };
  std::uint64_t idOf(const std::shared_ptr<View>& view,
                     std::unordered_map<const View*, Known>& seen);

  // The views of the last collection: only those keep their identity.
  std::unordered_map<const View*, Known> known_;
  std::uint64_t next_ = 1;
};

}  // namespace detail
}  // namespace quorvia::platform
