// The layout-file loader: the input is a layout file in a bundle of its own;
// it is loaded and, when it parses, instantiated.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <fstream>

#include "../FuzzSupport.h"
#include "platform/Bundle.h"
#include "quorvia/platform/Error.h"
#include "platform/Nib.h"
#include "platform/View.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quorvia;
  fuzz::installPlatformDoubles();
  static const auto bundle = [] {
    const auto dir = std::filesystem::temp_directory_path() /
                     ("quorvia-fuzz-nib-" + std::to_string(::getpid())) / "com.quorvia.fuzz";
    std::filesystem::create_directories(dir);
    return std::make_shared<platform::Bundle>(dir, "com.quorvia.fuzz");
  }();
  {
    std::ofstream out(bundle->bundlePath() / "Fuzz.json", std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  const auto nib = platform::Nib::nibWithNibName("Fuzz", bundle);
  if (!nib) return 0;
  try {
    const auto view = nib->instantiate();
    if (view) view->layoutIfNeeded();
  } catch (const platform::Exception&) {
    // An unknown class is the documented failure.
  }
  return 0;
}
