#include "platform/ui/AccessibleTree.h"

#include <algorithm>

#include "platform/Window.h"
#include "platform/ui/KeyboardFocus.h"

namespace quorvia::platform::detail {
namespace {

struct FocusInfo {
  std::vector<std::shared_ptr<View>> focusable;
  std::shared_ptr<View> focused;
  std::shared_ptr<View> modal;
};

class Collector {
 public:
  Collector(const FocusInfo& focus, AccessibleTree::Snapshot& out,
            const std::function<std::uint64_t(const std::shared_ptr<View>&)>& idOf)
      : focus_(focus), out_(out), idOf_(idOf) {}

  // Collects the elements under `view`, whose on-screen frame is `frame` and
  // whose visible part (inside the window and every ancestor) is `visible`.
  void visit(const std::shared_ptr<View>& view, Rect frame, Rect visible, int parent) {
    const Rect presented = view->presentationFrame();
    if (presented != view->frame() || view->presentationAlpha() != view->alpha()) {
      out_.animating = true;
    }
    if (view->isHidden() || view->presentationAlpha() <= 0) return;
    const AccessibleRole role = view->accessibilityRole();
    if (role != AccessibleRole::kNone) {
      const bool showing = visible.width() > 0 && visible.height() > 0;
      // A container that is entirely out of sight (a banner above the top
      // edge, before it slides in or after it slid out) is not there at all.
      if (role == AccessibleRole::kAlert && !showing) return;
      AccessibleElement element{role, view->accessibilityLabel().value_or(""), frame, parent,
                                showing};
      element.focusable = std::find(focus_.focusable.begin(), focus_.focusable.end(), view) !=
                          focus_.focusable.end();
      element.focused = element.focusable && view == focus_.focused;
      element.modal = role == AccessibleRole::kAlert && view == focus_.modal;
      element.id = idOf_(view);
      out_.nodes.push_back({std::move(element), view});
      if (role != AccessibleRole::kAlert) return;  // one element for all it holds
      parent = static_cast<int>(out_.nodes.size()) - 1;
    }
    for (const auto& sub : view->subviews()) {
      const Rect f = sub->presentationFrame();
      const Rect subFrame{{frame.x() + f.x(), frame.y() + f.y()}, f.size};
      visit(sub, subFrame, intersection(visible, subFrame), parent);
    }
  }

 private:
  const FocusInfo& focus_;
  AccessibleTree::Snapshot& out_;
  const std::function<std::uint64_t(const std::shared_ptr<View>&)>& idOf_;
};

}  // namespace

std::uint64_t AccessibleTree::idOf(const std::shared_ptr<View>& view,
                                   std::unordered_map<const View*, Known>& seen) {
  auto found = known_.find(view.get());
  // A view freed since and another made at its address is another element.
  const bool same = found != known_.end() && found->second.view.lock() == view;
  const Known known = same ? found->second : Known{view, next_++};
  seen[view.get()] = known;
  return known.id;
}

AccessibleTree::Snapshot AccessibleTree::collect(Window& window, KeyboardFocus& focus) {
  window.layoutIfNeeded();
  focus.sync();
  const FocusInfo info{focus.focusable(), focus.focused(), focus.modalPane()};
  Snapshot snapshot;
  std::unordered_map<const View*, Known> seen;
  const std::function<std::uint64_t(const std::shared_ptr<View>&)> idOf =
      [this, &seen](const std::shared_ptr<View>& view) { return this->idOf(view, seen); };
  Collector collector(info, snapshot, idOf);
  const Rect bounds = window.bounds();
  for (const auto& view : window.subviews()) {
    const Rect frame = view->presentationFrame();
    collector.visit(view, frame, intersection(bounds, frame), -1);
  }
  known_ = std::move(seen);
  return snapshot;
}

std::vector<AccessibleElement> AccessibleTree::elements(Window& window, KeyboardFocus& focus) {
  std::vector<AccessibleElement> out;
  for (auto& node : collect(window, focus).nodes) out.push_back(std::move(node.element));
  return out;
}

}  // namespace quorvia::platform::detail
