#pragma once
/// \file
/// Points, sizes, rectangles and colours (CGPoint, CGSize, CGRect, UIColor):
/// a host uses them to size its key window. Plain values; any thread.

#include <cstdint>

#include "quorvia/export.h"

namespace quorvia::platform {

/// A position in points.
struct Point {
  double x = 0;
  double y = 0;
  bool operator==(const Point&) const = default;
};

/// A size in points.
struct Size {
  double width = 0;
  double height = 0;
  bool operator==(const Size&) const = default;
};

/// A rectangle in points: origin (top-left) and size.
struct Rect {
  Point origin;
  Size size;

  static Rect make(double x, double y, double width, double height) {
    return Rect{{x, y}, {width, height}};
  }
  double x() const { return origin.x; }
  double y() const { return origin.y; }
  double width() const { return size.width; }
  double height() const { return size.height; }
  double maxX() const { return origin.x + size.width; }
  double maxY() const { return origin.y + size.height; }
  bool contains(Point p) const {
    return p.x >= origin.x && p.y >= origin.y && p.x < maxX() && p.y < maxY();
  }
  bool operator==(const Rect&) const = default;
};

/// The part two rectangles share; an empty rectangle (zero size) when none.
inline Rect intersection(const Rect& a, const Rect& b) {
  const double x0 = a.x() > b.x() ? a.x() : b.x();
  const double y0 = a.y() > b.y() ? a.y() : b.y();
  const double x1 = a.maxX() < b.maxX() ? a.maxX() : b.maxX();
  const double y1 = a.maxY() < b.maxY() ? a.maxY() : b.maxY();
  if (x1 <= x0 || y1 <= y0) return Rect{{x0, y0}, {0, 0}};
  return Rect{{x0, y0}, {x1 - x0, y1 - y0}};
}

/// An RGBA colour with components in 0...1, not premultiplied (UIColor).
struct QUORVIA_EXPORT Color {
  double red = 0;
  double green = 0;
  double blue = 0;
  double alpha = 0;

  static Color clearColor() { return {0, 0, 0, 0}; }
  static Color blackColor() { return {0, 0, 0, 1}; }
  static Color whiteColor() { return {1, 1, 1, 1}; }
  /// Grey level 0.5, opaque.
  static Color grayColor() { return {0.5, 0.5, 0.5, 1}; }
  /// The same colour with another alpha.
  Color colorWithAlphaComponent(double a) const { return {red, green, blue, a}; }
  /// Parses "clear", "black", "white", "gray", "#RRGGBB" or "#RRGGBBAA";
  /// false (and `out` untouched) on anything else.
  static bool fromString(const char* text, Color& out);
  bool operator==(const Color&) const = default;
};

}  // namespace quorvia::platform
