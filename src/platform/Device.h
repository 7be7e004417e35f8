#pragma once
/// \file
/// Device information (UIDevice) and the app's data directory, as the
/// environment reports them.

#include <filesystem>
#include <string>

#include "quorvia/export.h"

namespace quorvia::platform {

/// The system release, e.g. "17.0". Any thread.
QUORVIA_EXPORT std::string systemVersion();

/// The app's identifier, which names its data directory. Any thread.
QUORVIA_EXPORT std::string appIdentifier();

/// Where the app keeps its files. Not created here; each store creates it
/// (mode 0700) when it first writes. Any thread.
QUORVIA_EXPORT std::filesystem::path dataDirectory();

/// Creates `directory` and its parents with mode 0700 where missing. Returns
/// false (and leaves `error` set) when it cannot.
QUORVIA_EXPORT bool createPrivateDirectory(const std::filesystem::path& directory,
                                           std::string* error = nullptr);

}  // namespace quorvia::platform
