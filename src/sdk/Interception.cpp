#include "quorvia/QuorviaSDK.h"
#include "sdk/CallTrace.h"

namespace quorvia {

// Placeholder until the delegate-class runtime lands: interception does nothing yet.
void QuorviaSDK::swizzle() { ++detail::callTrace().swizzle; }

}  // namespace quorvia
