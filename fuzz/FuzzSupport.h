#pragma once
// Shared set-up of the fuzz targets: the platform doubles, and a silent log.

#include <fuzzer/FuzzedDataProvider.h>

#include <filesystem>
#include <memory>
#include <string>

#include "platform/ConfigurableEnvironment.h"
#include "quorvia/platform/RunLoop.h"
#include "quorvia/platform/Value.h"

namespace quorvia::fuzz {

/// Installs, once, a virtual-clock environment with a silent log, and returns it.
inline platform::ConfigurableEnvironment& installPlatformDoubles() {
  static platform::ConfigurableEnvironment* const env = [] {
    auto installed = platform::ConfigurableEnvironment::install(
        std::filesystem::temp_directory_path() / "quorvia-fuzz",
        platform::RunLoop::Clock::kVirtual);
    installed->setLogSink([](std::string_view) {});
    return installed.get();  // the environment is kept alive once installed
  }();
  return *env;
}

/// A value of any kind the platform passes around (including data and
/// non-finite numbers, which JSON cannot carry), at most `depth` levels deep.
/// `keys` are the dictionary keys worth hitting besides random ones.
inline platform::Value consumeValue(FuzzedDataProvider& in, int depth,
                                    const std::vector<std::string>& keys = {}) {
  switch (in.ConsumeIntegralInRange<int>(0, depth > 0 ? 8 : 6)) {
    case 0:
      return nullptr;
    case 1:
      return in.ConsumeBool();
    case 2:
      return in.ConsumeIntegral<std::int64_t>();
    case 3:
      return in.ConsumeIntegral<std::uint64_t>();
    case 4:
      return in.ConsumeFloatingPoint<double>();
    case 5:
      return in.ConsumeRandomLengthString(64);
    case 6:
      return platform::dataValue(in.ConsumeBytes<std::uint8_t>(in.ConsumeIntegralInRange(0, 64)));
    case 7: {
      platform::Value array = platform::Value::array();
      const int n = in.ConsumeIntegralInRange(0, 4);
      for (int i = 0; i < n; ++i) array.push_back(consumeValue(in, depth - 1, keys));
      return array;
    }
    default: {
      platform::Value object = platform::Value::object();
      const int n = in.ConsumeIntegralInRange(0, 6);
      for (int i = 0; i < n; ++i) {
        std::string key = !keys.empty() && in.ConsumeBool()
                              ? keys[in.ConsumeIntegralInRange<std::size_t>(0, keys.size() - 1)]
                              : in.ConsumeRandomLengthString(16);
        object[key] = consumeValue(in, depth - 1, keys);
      }
      return object;
    }
  }
}

}  // namespace quorvia::fuzz
