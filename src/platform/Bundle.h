#pragma once
/// \file
/// Resource bundles (NSBundle): a directory of resource files found by its
/// identifier. Any thread.

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "quorvia/export.h"

namespace quorvia::platform {

class QUORVIA_EXPORT Bundle final {
 public:
  explicit Bundle(std::filesystem::path path, std::string identifier)
      : path_(std::move(path)), identifier_(std::move(identifier)) {}

  /// The bundle of the running program: the executable's directory.
  static std::shared_ptr<Bundle> mainBundle();
  /// The bundle directory named `identifier`, looked for beside the
  /// installed library (<prefix>/share/quorvia/resources, found from the
  /// library's own location, or the program's for a static library), then
  /// under $QUORVIA_RESOURCE_DIR, then in the source tree (in-tree builds),
  /// then under the install prefix the library was built for. Null when none
  /// holds it; that is logged with every place searched.
  static std::shared_ptr<Bundle> bundleWithIdentifier(const std::string& identifier);

  const std::filesystem::path& bundlePath() const { return path_; }
  const std::string& bundleIdentifier() const { return identifier_; }
  /// The path of "<name>.<type>" in the bundle, or nullopt when no such file.
  std::optional<std::filesystem::path> pathForResource(const std::string& name,
                                                       const std::string& type) const;

 private:
  std::filesystem::path path_;
  std::string identifier_;
};

}  // namespace quorvia::platform
