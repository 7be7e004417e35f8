#pragma once
/// \file
/// Device information (UIDevice) and the app's data directory.

#include <filesystem>
#include <string>

#include "quorvia/export.h"

namespace quorvia::platform {

/// The system release, e.g. "17.0". Default: the running system's version
/// number (VERSION_ID of /etc/os-release), or "17.0" when unknown.
QUORVIA_EXPORT std::string systemVersion();
/// Host side: the release the SDK sees. Thread-safe.
QUORVIA_EXPORT void setSystemVersion(std::string version);

/// The app's identifier, used to name its data directory (default: the
/// program's name).
QUORVIA_EXPORT std::string appIdentifier();
QUORVIA_EXPORT void setAppIdentifier(std::string identifier);

/// Where the app keeps its files: the host-set directory, else
/// $XDG_DATA_HOME/quorvia/<app id> (XDG_DATA_HOME defaults to ~/.local/share).
/// Not created here; each store creates it (mode 0700) when it first writes.
QUORVIA_EXPORT std::filesystem::path dataDirectory();
QUORVIA_EXPORT void setDataDirectory(std::filesystem::path directory);

/// Creates `directory` and its parents with mode 0700 where missing. Returns
/// false (and leaves `error` set) when it cannot.
QUORVIA_EXPORT bool createPrivateDirectory(const std::filesystem::path& directory,
                                           std::string* error = nullptr);

}  // namespace quorvia::platform
