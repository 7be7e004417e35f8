#pragma once
// The device token's home: 32 random bytes kept in the app's data directory.

#include <filesystem>
#include <optional>

#include "quorvia/platform/Value.h"

namespace quorvia::platform {

/// Bytes in a device token.
inline constexpr std::size_t kDeviceTokenBytes = 32;

/// Name of the token file inside the data directory.
inline constexpr const char* kDeviceTokenFileName = "push-device-token";

/// The device token kept in `directory`, made there (0600 file, 0700
/// directory) when missing. A file that is not a regular 0600 file of exactly
/// 32 bytes is logged and replaced by a new token: a damaged token addresses
/// no one, and one that others could read lets them push to this device.
/// When the file cannot be written the new token is logged and used for this
/// run only. Null only when the system has no random bytes to give. Any
/// thread; two processes sharing a directory agree on one token.
std::optional<Bytes> loadOrCreateDeviceToken(const std::filesystem::path& directory);

}  // namespace quorvia::platform
