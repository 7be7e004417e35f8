#pragma once
/// \file
/// The version number of the Foundation framework this platform layer stands
/// for (NSFoundationVersionNumber).

namespace quorvia::platform {

/// The layer behaves as the Foundation of system release 8.0 (1140.11), the
/// oldest release the SDK runs on; every feature gated on a newer Foundation
/// than 993.0 (release 7) is therefore available.
inline constexpr double kNSFoundationVersionNumber = 1140.11;

}  // namespace quorvia::platform
