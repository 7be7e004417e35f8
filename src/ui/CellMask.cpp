#include "ui/CellMask.h"

#include "platform/Layer.h"

namespace quorvia::detail {

void installContainerMask(platform::View* container, double radius, unsigned corners) {
  if (!container) return;
  const platform::Rect bounds = container->bounds();
  auto mask = platform::ShapeLayer::layer();
  mask->setFrame(bounds);
  mask->setPath(platform::BezierPath::bezierPathWithRoundedRect(bounds, corners,
                                                                platform::Size{radius, radius}));
  container->layer().setMask(std::move(mask));
}

}  // namespace quorvia::detail
