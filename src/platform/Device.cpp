#include "quorvia/platform/Device.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <optional>

extern "C" char* program_invocation_short_name;  // glibc

namespace quorvia::platform {
namespace {

struct DeviceState {
  std::mutex mu;
  std::optional<std::string> systemVersion;
  std::optional<std::string> appIdentifier;
  std::optional<std::filesystem::path> dataDirectory;
};

DeviceState& state() {
  static auto* s = new DeviceState;
  return *s;
}

std::string runningSystemVersion() {
  std::ifstream in("/etc/os-release");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("VERSION_ID=", 0) != 0) continue;
    std::string v = line.substr(11);
    std::erase(v, '"');
    if (!v.empty()) return v;
  }
  return "17.0";
}

}  // namespace

std::string systemVersion() {
  std::lock_guard lock(state().mu);
  if (!state().systemVersion) state().systemVersion = runningSystemVersion();
  return *state().systemVersion;
}

void setSystemVersion(std::string version) {
  std::lock_guard lock(state().mu);
  state().systemVersion = std::move(version);
}

std::string appIdentifier() {
  std::lock_guard lock(state().mu);
  if (!state().appIdentifier) state().appIdentifier = program_invocation_short_name;
  return *state().appIdentifier;
}

void setAppIdentifier(std::string identifier) {
  std::lock_guard lock(state().mu);
  state().appIdentifier = std::move(identifier);
}

std::filesystem::path dataDirectory() {
  {
    std::lock_guard lock(state().mu);
    if (state().dataDirectory) return *state().dataDirectory;
  }
  std::filesystem::path base;
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg) {
    base = xdg;
  } else if (const char* home = std::getenv("HOME"); home && *home) {
    base = std::filesystem::path(home) / ".local" / "share";
  } else {
    base = std::filesystem::temp_directory_path();
  }
  return base / "quorvia" / appIdentifier();
}

void setDataDirectory(std::filesystem::path directory) {
  std::lock_guard lock(state().mu);
  state().dataDirectory = std::move(directory);
}

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
