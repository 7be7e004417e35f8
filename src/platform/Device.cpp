#include "platform/Device.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "quorvia/platform/Environment.h"

namespace quorvia::platform {

std::string systemVersion() { return environment().deviceInfo().systemVersion; }

std::string appIdentifier() { return environment().deviceInfo().appIdentifier; }

std::filesystem::path dataDirectory() { return environment().dataDirectory(); }

bool createPrivateDirectory(const std::filesystem::path& directory, std::string* error) {
  std::error_code ec;
  if (std::filesystem::is_directory(directory, ec)) return true;
  if (directory.has_parent_path() && directory.parent_path() != directory &&
      !createPrivateDirectory(directory.parent_path(), error)) {
    return false;
  }
  if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
    if (error) *error = "cannot create " + directory.string() + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

}  // namespace quorvia::platform
