#include "platform/Animation.h"

#include <algorithm>
#include <chrono>
#include <cmath>

#include "platform/ui/AnimationContext.h"
#include "quorvia/platform/RunLoop.h"

namespace quorvia::platform {
namespace {

// Nested blocks take the innermost duration, as the platform does.
thread_local double gBlockDuration = -1;

double bezier(double a1, double a2, double t) {
  // One axis of a cubic Bezier from 0 to 1 with control values a1 and a2.
  const double u = 1 - t;
  return 3 * u * u * t * a1 + 3 * u * t * t * a2 + t * t * t;
}

}  // namespace

namespace detail {
double currentAnimationDuration() { return gBlockDuration; }
double mainClockSeconds() {
  return std::chrono::duration<double>(mainRunLoop().now()).count();
}
}  // namespace detail

double easeInOut(double t) {
  if (t <= 0) return 0;
  if (t >= 1) return 1;
  // Find the curve parameter whose x is t by bisection (x is monotonic), then read y.
  double lo = 0, hi = 1, s = t;
  for (int i = 0; i < 40; ++i) {
    s = (lo + hi) / 2;
    if (bezier(0.42, 0.58, s) < t) {
      lo = s;
    } else {
      hi = s;
    }
  }
  return bezier(0.0, 1.0, s);
}

void animateWithDuration(double duration, const std::function<void()>& animations,
                         std::function<void(bool)> completion) {
  const double outer = gBlockDuration;
  gBlockDuration = std::max(0.0, duration);
  try {
    if (animations) animations();
  } catch (...) {
    gBlockDuration = outer;
    throw;
  }
  gBlockDuration = outer;
  if (completion) {
    dispatch_after(seconds(duration), [completion = std::move(completion)] { completion(true); });
  }
}

}  // namespace quorvia::platform
