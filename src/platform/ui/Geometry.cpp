#include "quorvia/platform/Geometry.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/Layer.h"
#include "quorvia/platform/AccessibleElement.h"

namespace quorvia::platform {

bool Color::fromString(const char* text, Color& out) {
  if (!text) return false;
  if (std::strcmp(text, "clear") == 0) return out = clearColor(), true;
  if (std::strcmp(text, "black") == 0) return out = blackColor(), true;
  if (std::strcmp(text, "white") == 0) return out = whiteColor(), true;
  if (std::strcmp(text, "gray") == 0) return out = grayColor(), true;
  const std::size_t n = std::strlen(text);
  if (text[0] != '#' || (n != 7 && n != 9)) return false;
  char* end = nullptr;
  const unsigned long v = std::strtoul(text + 1, &end, 16);
  if (end != text + n) return false;
  const unsigned long rgba = n == 7 ? (v << 8) | 0xff : v;
  out = Color{((rgba >> 24) & 0xff) / 255.0, ((rgba >> 16) & 0xff) / 255.0,
              ((rgba >> 8) & 0xff) / 255.0, (rgba & 0xff) / 255.0};
  return true;
}

bool BezierPath::containsPoint(Point p) const {
  if (!rect.contains(p)) return false;
  const double rx = std::min(cornerRadii.width, rect.width() / 2);
  const double ry = std::min(cornerRadii.height, rect.height() / 2);
  if (rx <= 0 || ry <= 0) return true;
  struct Corner {
    unsigned bit;
    double cx, cy;
    bool inX, inY;
  };
  const Corner arcs[] = {
      {kRectCornerTopLeft, rect.x() + rx, rect.y() + ry, p.x < rect.x() + rx, p.y < rect.y() + ry},
      {kRectCornerTopRight, rect.maxX() - rx, rect.y() + ry, p.x > rect.maxX() - rx,
       p.y < rect.y() + ry},
      {kRectCornerBottomLeft, rect.x() + rx, rect.maxY() - ry,
       p.x<rect.x() + rx, p.y> rect.maxY() - ry},
      {kRectCornerBottomRight, rect.maxX() - rx, rect.maxY() - ry, p.x > rect.maxX() - rx,
       p.y > rect.maxY() - ry},
  };
  for (const auto& c : arcs) {
    if ((corners & c.bit) && c.inX && c.inY) {
      const double dx = (p.x - c.cx) / rx, dy = (p.y - c.cy) / ry;
      if (dx * dx + dy * dy > 1) return false;
    }
  }
  return true;
}

}  // namespace quorvia::platform

namespace quorvia::platform {

std::string describe(const AccessibleElement& element) {
  const char* role = "none";
  switch (element.role) {
    case AccessibleRole::kAlert:
      role = "alert";
      break;
    case AccessibleRole::kLabel:
      role = "label";
      break;
    case AccessibleRole::kPushButton:
      role = "button";
      break;
    case AccessibleRole::kNone:
      break;
  }
  char box[128];
  std::snprintf(box, sizeof box, "%s %.1f,%.1f,%.1f,%.1f%s%s ", role, element.frame.x(),
                element.frame.y(), element.frame.width(), element.frame.height(),
                element.showing ? "" : " hidden", element.focused ? " focused" : "");
  return box + element.name;
}

}  // namespace quorvia::platform
