// URL strings as the request builder and the banner's links meet them.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/URL.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (const auto url = quorvia::platform::URLWithString(text)) {
    // Every part is a slice of the input.
    if (url->host.size() > size || url->path.size() > size || url->query.size() > size) __builtin_trap();
  }
  return 0;
}
