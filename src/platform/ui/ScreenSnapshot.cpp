#include "platform/ui/ScreenSnapshot.h"

#include <algorithm>
#include <unordered_map>

#include "platform/BlurView.h"
#include "platform/FocusRing.h"
#include "platform/Label.h"
#include "platform/Window.h"

namespace quorvia::platform::detail {
namespace {

// Main thread only, like the view tree that calls it.
void (*gScreenChangeObserver)() = nullptr;

bool sameRect(const Rect& a, const Rect& b) { return a == b; }

bool samePath(const BezierPath& a, const BezierPath& b) {
  return a.rect == b.rect && a.corners == b.corners && a.cornerRadii == b.cornerRadii;
}

bool intersects(const Rect& a, const Rect& b) {
  return a.x() < b.maxX() && b.x() < a.maxX() && a.y() < b.maxY() && b.y() < a.maxY();
}

Rect unite(const Rect& a, const Rect& b) {
  const double x = std::min(a.x(), b.x()), y = std::min(a.y(), b.y());
  return Rect::make(x, y, std::max(a.maxX(), b.maxX()) - x, std::max(a.maxY(), b.maxY()) - y);
}

class Collector {
 public:
  explicit Collector(ScreenSnapshot& out) : out_(out) {}

  void visit(View& view, Point origin, double parentAlpha) {
    const double presented = view.presentationAlpha();
    const Rect frame = view.presentationFrame();
    if (frame != view.frame() || presented != view.alpha()) out_.animating = true;
    const double alpha = parentAlpha * presented;
    if (view.isHidden() || alpha <= 0) return;
    ScreenItem item;
    item.view = &view;
    item.below = below_;
    item.rect =
        Rect::make(origin.x + frame.x(), origin.y + frame.y(), frame.width(), frame.height());
    item.alpha = alpha;
    item.background = view.backgroundColor();
    if (const auto& mask = view.layer().mask()) {
      item.hasMask = true;
      item.maskFrame = mask->frame();
      item.maskPath = mask->path();
    }
    item.blur = dynamic_cast<BlurView*>(&view) != nullptr;
    if (auto* ring = dynamic_cast<FocusRing*>(&view)) {
      item.ring = true;
      item.ringRadius = ring->cornerRadius();
      item.ringCorners = ring->corners();
    }
    if (auto* label = dynamic_cast<Label*>(&view)) {
      item.text = label->text();
      item.font = label->font();
      item.textColor = label->textColor();
      item.alignment = static_cast<int>(label->textAlignment());
    }
    below_ = &view;
    // Subviews sit in this view's coordinates; once the first subtree is
    // collected, the last item is no longer this view.
    const Point subviewOrigin = item.rect.origin;
    out_.items.push_back(std::move(item));
    for (const auto& sub : view.subviews()) visit(*sub, subviewOrigin, alpha);
  }

 private:
  ScreenSnapshot& out_;
  const void* below_ = nullptr;
};

}  // namespace

void noteScreenChange() {
  if (gScreenChangeObserver) gScreenChangeObserver();
}

void setScreenChangeObserver(void (*observer)()) { gScreenChangeObserver = observer; }

bool ScreenItem::samePixels(const ScreenItem& o) const {
  return below == o.below && sameRect(rect, o.rect) && alpha == o.alpha &&
         background == o.background && hasMask == o.hasMask &&
         (!hasMask || (maskFrame == o.maskFrame && samePath(maskPath, o.maskPath))) &&
         blur == o.blur && ring == o.ring && ringRadius == o.ringRadius &&
         ringCorners == o.ringCorners && text == o.text && font == o.font && textColor == o.textColor &&
         alignment == o.alignment;
}

ScreenSnapshot ScreenSnapshot::take(Window& window) {
  window.layoutIfNeeded();
  ScreenSnapshot snapshot;
  snapshot.windowSize = window.bounds().size;
  Collector collector(snapshot);
  // The window is drawn at its own origin, whatever its frame says.
  const Rect frame = window.presentationFrame();
  collector.visit(window, Point{-frame.x(), -frame.y()}, 1);
  return snapshot;
}

std::vector<Rect> ScreenSnapshot::damageSince(const ScreenSnapshot& before) const {
  std::vector<Rect> damage;
  if (windowSize != before.windowSize) {
    damage.push_back(Rect{{0, 0}, windowSize});
    return damage;
  }
  std::unordered_map<const void*, const ScreenItem*> old;
  old.reserve(before.items.size());
  for (const auto& item : before.items) old.emplace(item.view, &item);
  for (const auto& item : items) {
    auto it = old.find(item.view);
    if (it == old.end()) {
      damage.push_back(item.rect);
      continue;
    }
    if (!item.samePixels(*it->second)) {
      damage.push_back(item.rect);
      if (!sameRect(item.rect, it->second->rect)) damage.push_back(it->second->rect);
    }
    old.erase(it);
  }
  for (const auto& [view, item] : old) damage.push_back(item->rect);
  if (damage.empty()) return damage;
  // A blur samples what is behind it: touched anywhere, it is redrawn whole.
  for (const auto& item : items) {
    if (!item.blur) continue;
    if (std::any_of(damage.begin(), damage.end(),
                    [&](const Rect& r) { return intersects(r, item.rect); })) {
      damage.push_back(item.rect);
    }
  }
  // Only what lies in the window is drawn.
  const Rect window{{0, 0}, windowSize};
  std::vector<Rect> clipped;
  for (const auto& r : damage) {
    if (!intersects(r, window) || r.width() <= 0 || r.height() <= 0) continue;
    const double x = std::max(r.x(), 0.0), y = std::max(r.y(), 0.0);
    clipped.push_back(Rect::make(x, y, std::min(r.maxX(), window.maxX()) - x,
                                 std::min(r.maxY(), window.maxY()) - y));
  }
  // Many small rectangles cost more in clipping than one that holds them.
  constexpr std::size_t kMaxRects = 8;
  if (clipped.size() > kMaxRects) {
    Rect all = clipped.front();
    for (const auto& r : clipped) all = unite(all, r);
    clipped.assign(1, all);
  }
  return clipped;
}

}  // namespace quorvia::platform::detail
