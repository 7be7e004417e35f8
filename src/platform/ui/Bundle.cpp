#include "platform/Bundle.h"

#include <dlfcn.h>

#include <cstdlib>
#include <system_error>
#include <vector>

#include "platform/Log.h"

namespace quorvia::platform {
namespace {

// <prefix>/share/quorvia/resources for the prefix this code was loaded from:
// the shared library's, or the program's when the library is linked in.
std::optional<std::filesystem::path> besideTheLibrary() {
  Dl_info info{};
  if (::dladdr(reinterpret_cast<void*>(&besideTheLibrary), &info) == 0 || !info.dli_fname) {
    return std::nullopt;
  }
  std::error_code ec;
  const auto object = std::filesystem::canonical(info.dli_fname, ec);
  if (ec) return std::nullopt;
  return object.parent_path().parent_path() / "share" / "quorvia" / "resources";
}

}  // namespace

std::shared_ptr<Bundle> Bundle::mainBundle() {
  std::error_code ec;
  auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
  return std::make_shared<Bundle>(ec ? std::filesystem::current_path(ec) : exe.parent_path(), "");
}

std::shared_ptr<Bundle> Bundle::bundleWithIdentifier(const std::string& identifier) {
  if (identifier.empty() || identifier.find('/') != std::string::npos) return nullptr;
  std::vector<std::filesystem::path> roots;
  if (auto beside = besideTheLibrary()) roots.push_back(std::move(*beside));
  if (const char* env = std::getenv("QUORVIA_RESOURCE_DIR"); env && *env) roots.emplace_back(env);
  roots.emplace_back(QUORVIA_BUILD_RESOURCE_DIR);
  roots.emplace_back(QUORVIA_INSTALL_RESOURCE_DIR);
  std::string searched;
  for (const auto& root : roots) {
    std::error_code ec;
    const auto dir = root / identifier;
    if (std::filesystem::is_directory(dir, ec)) return std::make_shared<Bundle>(dir, identifier);
    searched += (searched.empty() ? "" : ", ") + dir.string();
  }
  debugLog("QuorviaSDK: resource bundle " + identifier + " not found; searched " + searched +
           ". Set QUORVIA_RESOURCE_DIR to the directory that holds " + identifier + ".");
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
