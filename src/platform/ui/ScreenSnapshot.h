#pragma once
// Internal: what a window shows at one moment, reduced to what decides its
// pixels, so that two moments can be compared and only what differs repainted.
// Main thread.

#include <cstdint>
#include <string>
#include <vector>

#include "quorvia/platform/Geometry.h"
#include "platform/Layer.h"

namespace quorvia::platform {

class Window;

namespace detail {

/// One drawn view: where it is on screen and everything that changes its
/// pixels. Views are matched between snapshots by identity.
struct ScreenItem {
  const void* view = nullptr;
  const void* below = nullptr;  // the item drawn just before: a change of order repaints
  Rect rect;                    // window coordinates, presentation values
  double alpha = 1;             // with the ancestors' alpha folded in
  Color background;
  bool hasMask = false;
  Rect maskFrame;
  BezierPath maskPath;
  bool blur = false;
  bool ring = false;  // a focus ring: its shape
  double ringRadius = 0;
  unsigned ringCorners = 0;
  std::string text;  // labels: text, font, colour and alignment
  std::string font;
  Color textColor;
  int alignment = 0;

  bool samePixels(const ScreenItem& other) const;
};

struct ScreenSnapshot {
  std::vector<ScreenItem> items;  // in drawing order
  Size windowSize;
  /// Whether a frame or alpha animation is still moving.
  bool animating = false;

  /// Lays out pending views of `window` first.
  static ScreenSnapshot take(Window& window);
  /// Rectangles (window points) whose pixels differ from `before`. A blurred
  /// view touched by the damage is repainted whole, since it samples what
  /// lies behind it.
  std::vector<Rect> damageSince(const ScreenSnapshot& before) const;
};

/// Called by the view tree whenever a view moves, fades, appears, goes or
/// changes its text: the embedding host window then checks for damage on the
/// next main-queue turn. Main thread.
void noteScreenChange();
/// Installs what noteScreenChange() calls; null removes it.
void setScreenChangeObserver(void (*observer)());

}  // namespace detail
}  // namespace quorvia::platform
