#pragma once
/// \file
/// Layers (CALayer, CAShapeLayer) and the rounded-rectangle path
/// (UIBezierPath) that views are masked with; included by View.h, which a
/// host reaches through its key window. Main thread.

#include <memory>

#include "quorvia/export.h"
#include "quorvia/platform/Geometry.h"

namespace quorvia::platform {

/// Corner bits of a rounded rectangle (UIRectCorner).
enum RectCorner : unsigned {
  kRectCornerTopLeft = 1,
  kRectCornerTopRight = 2,
  kRectCornerBottomLeft = 4,
  kRectCornerBottomRight = 8,
  kRectCornerAllCorners = 15,
};

/// A rectangle with some corners rounded by elliptical radii.
struct BezierPath {
  Rect rect;
  unsigned corners = 0;
  Size cornerRadii;

  /// bezierPathWithRoundedRect:byRoundingCorners:cornerRadii:.
  static BezierPath bezierPathWithRoundedRect(Rect rect, unsigned corners, Size cornerRadii) {
    return BezierPath{rect, corners, cornerRadii};
  }
  /// Whether `p` (in the path's coordinates) lies inside the path.
  QUORVIA_EXPORT bool containsPoint(Point p) const;
};

/// A layer that draws a path; used here only as a mask (CAShapeLayer).
class QUORVIA_EXPORT ShapeLayer final {
 public:
  static std::shared_ptr<ShapeLayer> layer() { return std::make_shared<ShapeLayer>(); }
  Rect frame() const { return frame_; }
  void setFrame(Rect frame) { frame_ = frame; }
  const BezierPath& path() const { return path_; }
  void setPath(BezierPath path) { path_ = path; }

 private:
  Rect frame_;
  BezierPath path_;
};

/// A view's backing layer. Only its mask is modelled: the content of the
/// view shows only where the mask's path (offset by the mask's frame) is.
class QUORVIA_EXPORT Layer final {
 public:
  const std::shared_ptr<ShapeLayer>& mask() const { return mask_; }
  /// Installs `mask`, replacing any earlier one; null removes it.
  void setMask(std::shared_ptr<ShapeLayer> mask) { mask_ = std::move(mask); }

 private:
  std::shared_ptr<ShapeLayer> mask_;
};

}  // namespace quorvia::platform
