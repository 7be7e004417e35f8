#include "platform/Bundle.h"

#include <cstdlib>
#include <system_error>
#include <vector>

namespace quorvia::platform {

std::shared_ptr<Bundle> Bundle::mainBundle() {
  std::error_code ec;
  auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
  return std::make_shared<Bundle>(ec ? std::filesystem::current_path(ec) : exe.parent_path(), "");
}

std::shared_ptr<Bundle> Bundle::bundleWithIdentifier(const std::string& identifier) {
  if (identifier.empty() || identifier.find('/') != std::string::npos) return nullptr;
  std::vector<std::filesystem::path> roots;
  if (const char* env = std::getenv("QUORVIA_RESOURCE_DIR"); env && *env) roots.emplace_back(env);
  roots.emplace_back(QUORVIA_BUILD_RESOURCE_DIR);
  roots.emplace_back(QUORVIA_INSTALL_RESOURCE_DIR);
  for (const auto& root : roots) {
    std::error_code ec;
    const auto dir = root / identifier;
    if (std::filesystem::is_directory(dir, ec)) return std::make_shared<Bundle>(dir, identifier);
  }
  return nullptr;
}

std::optional<std::filesystem::path> Bundle::pathForResource(const std::string& name,
                                                             const std::string& type) const {
  if (name.empty() || name.find('/') != std::string::npos) return std::nullopt;
  std::error_code ec;
  auto path = path_ / (type.empty() ? name : name + "." + type);
  if (!std::filesystem::is_regular_file(path, ec)) return std::nullopt;
  return path;
}

}  // namespace quorvia::platform
