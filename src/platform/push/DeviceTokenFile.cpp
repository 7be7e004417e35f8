#include "platform/push/DeviceTokenFile.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/Device.h"
#include "platform/Log.h"

namespace quorvia::platform {
namespace {

void logTokenProblem(const std::string& message) {
  debugLog("QuorviaSDK: push device token " + message);
}

std::optional<Bytes> randomToken() {
  Bytes token(kDeviceTokenBytes);
  std::size_t filled = 0;
  while (filled < token.size()) {
    const ssize_t n = ::getrandom(token.data() + filled, token.size() - filled, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      logTokenProblem(std::string("cannot be made: getrandom failed: ") + std::strerror(errno));
      return std::nullopt;
    }
    filled += static_cast<std::size_t>(n);
  }
  return token;
}

bool readAll(int fd, std::uint8_t* data, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t n = ::read(fd, data + done, size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

bool writeAll(int fd, const std::uint8_t* data, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t n = ::write(fd, data + done, size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

enum class Stored { kFound, kMissing, kUnusable };

// Reads the token file; `why` says what is wrong with an unusable one.
Stored readToken(const std::filesystem::path& file, Bytes* token, std::string* why) {
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) {
    if (errno == ENOENT) return Stored::kMissing;
    *why = errno == ELOOP ? "is a symbolic link"
                          : std::string("cannot be read: ") + std::strerror(errno);
    return Stored::kUnusable;
  }
  struct stat st {};
  Stored result = Stored::kUnusable;
  char mode[8];
  if (::fstat(fd, &st) != 0) {
    *why = std::string("cannot be read: ") + std::strerror(errno);
  } else if (!S_ISREG(st.st_mode)) {
    *why = "is not a regular file";
  } else if ((st.st_mode & 07777) != 0600) {
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
    *why = std::string("has mode ") + mode + " instead of 0600";
  } else if (static_cast<std::size_t>(st.st_size) != kDeviceTokenBytes) {
    *why = "holds " + std::to_string(st.st_size) + " bytes instead of " +
           std::to_string(kDeviceTokenBytes);
  } else {
    token->assign(kDeviceTokenBytes, 0);
    if (readAll(fd, token->data(), token->size())) {
      result = Stored::kFound;
    } else {
      *why = "cannot be read to its end";
    }
  }
  ::close(fd);
  return result;
}

enum class Written { kDone, kAlreadyThere, kFailed };

// Writes `token` to a private temporary file and moves it into place: by
// link() when the file must not exist yet (so that of two processes starting
// together one token wins), by rename() when it replaces an unusable one.
Written writeToken(const std::filesystem::path& file, const Bytes& token, bool replace,
                   std::string* why) {
  std::string temporary = file.string() + ".XXXXXX";
  const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);  // mode 0600
  if (fd < 0) {
    *why = std::strerror(errno);
    return Written::kFailed;
  }
  const bool written = writeAll(fd, token.data(), token.size()) && ::fsync(fd) == 0;
  const int writeErrno = errno;
  ::close(fd);
  Written result = Written::kDone;
  if (!written) {
    *why = std::strerror(writeErrno);
    result = Written::kFailed;
  } else if (replace ? ::rename(temporary.c_str(), file.c_str()) != 0
                     : ::link(temporary.c_str(), file.c_str()) != 0) {
    result = errno == EEXIST ? Written::kAlreadyThere : Written::kFailed;
    *why = std::strerror(errno);
  }
  ::unlink(temporary.c_str());  // after a rename it is already gone
  return result;
}

}  // namespace

std::optional<Bytes> loadOrCreateDeviceToken(const std::filesystem::path& directory) {
  std::string why;
  if (!createPrivateDirectory(directory, &why)) {
    logTokenProblem("not kept (" + why + "); this run uses a token of its own");
    return randomToken();
  }
  const std::filesystem::path file = directory / kDeviceTokenFileName;
  // A second round only when another process created the file between our
  // read and our write: then its token is the one to use.
  for (int round = 0; round < 2; ++round) {
    Bytes stored;
    const Stored state = readToken(file, &stored, &why);
    if (state == Stored::kFound) return stored;
    std::optional<Bytes> token = randomToken();
    if (!token) return std::nullopt;
    const bool replace = state == Stored::kUnusable;
    if (replace) logTokenProblem("file " + file.string() + " " + why + "; replaced by a new token");
    switch (writeToken(file, *token, replace, &why)) {
      case Written::kDone:
        return token;
      case Written::kAlreadyThere:
        continue;
      case Written::kFailed:
        logTokenProblem("file " + file.string() + " cannot be written (" + why +
                        "); this run uses a token of its own");
        return token;
    }
  }
  logTokenProblem("file " + file.string() + " keeps changing; this run uses a token of its own");
  return randomToken();
}

}  // namespace quorvia::platform
