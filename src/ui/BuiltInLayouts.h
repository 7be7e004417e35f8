#pragma once
// Internal: the three row layout files as shipped in
// resources/com.quorvia.sdk.ios, built into the library from those same files.

#include <memory>
#include <string_view>

#include "platform/Nib.h"

namespace quorvia {

/// The shipped layout file `name` ("QVNotificationHeaderCell",
/// "QVNotificationTextCell" or "QVNotificationActionCell"); null for any
/// other name.
std::shared_ptr<platform::Nib> builtInLayout(std::string_view name);

}  // namespace quorvia
