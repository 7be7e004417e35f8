// The user-defaults file reader: the input is the file's bytes; the store is
// read, changed and written back.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <fstream>

#include "../FuzzSupport.h"
#include "networking/SimpleNetworking.h"
#include "platform/UserDefaults.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quorvia;
  fuzz::installPlatformDoubles();
  static const auto dir = [] {
    auto path = std::filesystem::temp_directory_path() /
                ("quorvia-fuzz-defaults-" + std::to_string(::getpid()));
    std::filesystem::create_directories(path);
    return path;
  }();
  const auto file = dir / "UserDefaults.qvka";
  std::filesystem::remove(file.string() + ".corrupt");
  {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  auto defaults = platform::makeFileUserDefaults(file);
  (void)defaults->dictionaryForKey(SimpleNetworking::kStoredCacheLoadKey);
  if (const auto value = defaults->objectForKey(SimpleNetworking::kStoredCacheSaveKey)) {
    (void)platform::describe(*value);
  }
  defaults->setObject(platform::Value{{"k", 1}}, "fuzz");
  (void)defaults->synchronize();
  return 0;
}
