#pragma once
// Shared set-up of the fuzz targets: the platform doubles, and a silent log.

#include <filesystem>
#include <memory>

#include "quorvia/platform/Device.h"
#include "quorvia/platform/Log.h"
#include "quorvia/platform/RunLoop.h"

namespace quorvia::fuzz {

inline void installPlatformDoubles() {
  static const bool done = [] {
    platform::setMainRunLoop(
        std::make_shared<platform::RunLoop>(platform::RunLoop::Clock::kVirtual));
    platform::setLogSink([](std::string_view) {});
    platform::setSystemVersion("17.0");
    platform::setDataDirectory(std::filesystem::temp_directory_path() / "quorvia-fuzz");
    return true;
  }();
  (void)done;
}

}  // namespace quorvia::fuzz
