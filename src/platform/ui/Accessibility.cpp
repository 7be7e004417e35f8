#include "quorvia/platform/Accessibility.h"

#include <atomic>

namespace quorvia::platform {
namespace {
std::atomic<bool> gReduceTransparency{false};
}  // namespace

bool UIAccessibilityIsReduceTransparencyEnabled() { return gReduceTransparency.load(); }
void setReduceTransparencyEnabled(bool enabled) { gReduceTransparency.store(enabled); }

}  // namespace quorvia::platform
