#include "platform/FocusRing.h"

#include "platform/ui/ScreenSnapshot.h"

namespace quorvia::platform {

void FocusRing::setShape(double radius, unsigned corners) {
  if (radius == cornerRadius_ && corners == corners_) return;
  cornerRadius_ = radius;
  corners_ = corners;
  detail::noteScreenChange();
}

}  // namespace quorvia::platform
