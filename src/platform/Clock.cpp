#include "quorvia/platform/Clock.h"

#include "quorvia/platform/Environment.h"

namespace quorvia::platform {

SystemTime wallClockNow() { return environment().now(); }

}  // namespace quorvia::platform
