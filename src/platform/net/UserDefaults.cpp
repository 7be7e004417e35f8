#include "platform/UserDefaults.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>

#include "platform/Device.h"
#include "quorvia/platform/Environment.h"
#include "platform/KeyedArchiver.h"
#include "platform/Log.h"

namespace quorvia::platform {
namespace {

bool writeAll(int fd, const Bytes& bytes) {
  std::size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + written, bytes.size() - written);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    written += static_cast<std::size_t>(n);
  }
  return true;
}

void syncDirectory(const std::filesystem::path& directory) {
  const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

struct FileState {
  std::filesystem::path file;
  std::mutex mu;
  bool loaded = false;
  Value values = Value::object();

  void load() {
    if (loaded) return;
    loaded = true;
    std::error_code ec;
    if (!std::filesystem::exists(file, ec)) return;
    std::ifstream in(file, std::ios::binary);
    const Bytes bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    auto root = unarchiveObjectWithData(bytes);
    if (in.bad() || !root || !root->is_object()) {
      // Kept aside rather than overwritten, so nothing in it is lost.
      const auto aside = std::filesystem::path(file.string() + ".corrupt");
      std::filesystem::rename(file, aside, ec);
      debugLog("QuorviaSDK: user defaults file " + file.string() +
               " is not a readable dictionary; moved to " + aside.string() + " and starting empty");
      return;
    }
    values = std::move(*root);
  }

  bool save() {
    std::string error;
    if (!createPrivateDirectory(file.parent_path(), &error)) {
      debugLog("QuorviaSDK: user defaults not saved: " + error);
      return false;
    }
    const Bytes bytes = archivedDataWithRootObject(values);
    const auto temporary =
        std::filesystem::path(file.string() + ".tmp." + std::to_string(::getpid()));
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
      debugLog("QuorviaSDK: user defaults not saved: " + std::string(std::strerror(errno)));
      return false;
    }
    const bool ok = writeAll(fd, bytes) && ::fsync(fd) == 0;
    const int savedErrno = errno;
    ::close(fd);
    if (!ok || ::rename(temporary.c_str(), file.c_str()) != 0) {
      debugLog("QuorviaSDK: user defaults not saved: " +
               std::string(std::strerror(ok ? errno : savedErrno)));
      ::unlink(temporary.c_str());
      return false;
    }
    syncDirectory(file.parent_path());
    return true;
  }
};

class FileUserDefaults final : public UserDefaults {
 public:
  explicit FileUserDefaults(std::filesystem::path file) { state_.file = std::move(file); }

  std::optional<Value> objectForKey(std::string_view key) override {
    std::lock_guard lock(state_.mu);
    state_.load();
    const auto found = state_.values.find(key);
    if (found == state_.values.end()) return std::nullopt;
    return *found;
  }

  void setObject(std::optional<Value> value, std::string_view key) override {
    std::lock_guard lock(state_.mu);
    state_.load();
    if (value) {
      state_.values[std::string(key)] = std::move(*value);
    } else {
      state_.values.erase(std::string(key));
    }
  }

  bool synchronize() override {
    std::lock_guard lock(state_.mu);
    state_.load();
    return state_.save();
  }

 private:
  FileState state_;
};

}  // namespace

UserDefaults::~UserDefaults() = default;

UserDefaults& UserDefaults::standardUserDefaults() {
  // The environment keeps its store for as long as it lives, which is as
  // long as the process.
  return *environment().userDefaults();
}

std::optional<Value> UserDefaults::dictionaryForKey(std::string_view key) {
  auto value = objectForKey(key);
  if (!value || !value->is_object()) return std::nullopt;
  return value;
}

std::shared_ptr<UserDefaults> makeFileUserDefaults(std::filesystem::path file) {
  return std::make_shared<FileUserDefaults>(std::move(file));
}

}  // namespace quorvia::platform
