#pragma once
/// \file
/// The keyboard focus ring: a view that strokes a rounded rectangle just
/// inside its bounds and takes no touches. A pane lays it over the focused
/// element; the renderer draws it as one stroke, so moving it costs what a
/// row's highlight costs. Main thread.

#include "platform/View.h"

namespace quorvia::platform {

class FocusRing final : public View {
 public:
  /// 3 points: at least 2, as focus indicators must be.
  static constexpr double kLineWidth = 3;
  /// #5B5BD6, the banner's accent: 5.4:1 against the white card, more than
  /// the 3:1 a focus indicator needs.
  static constexpr Color kColor{0x5B / 255.0, 0x5B / 255.0, 0xD6 / 255.0, 1};

  FocusRing() { setUserInteractionEnabled(false); }

  /// The outline's corner radius (points) and which corners it rounds
  /// (RectCorner bits), to follow the shape of what it surrounds.
  double cornerRadius() const { return cornerRadius_; }
  unsigned corners() const { return corners_; }
  void setShape(double radius, unsigned corners);

 private:
  double cornerRadius_ = 0;
  unsigned corners_ = 0;
};

}  // namespace quorvia::platform
