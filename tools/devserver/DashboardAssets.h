#pragma once

#include <cstddef>
#include <span>
#include <string_view>

namespace quorvia::devserver {

// One file of the dashboard, built into the binary from tools/devserver/dashboard/.
struct EmbeddedAsset {
  const char* name;  // file name, e.g. "index.html"
  const unsigned char* bytes;
  size_t size;

  std::string_view text() const { return {reinterpret_cast<const char*>(bytes), size}; }
};

// Every dashboard file; generated at build time.
std::span<const EmbeddedAsset> dashboardAssets();

}  // namespace quorvia::devserver
