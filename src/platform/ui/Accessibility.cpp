#include "platform/Accessibility.h"

#include "quorvia/platform/Environment.h"

namespace quorvia::platform {

bool UIAccessibilityIsReduceTransparencyEnabled() {
  return environment().deviceInfo().reduceTransparency;
}

}  // namespace quorvia::platform
