#include "quorvia/platform/Log.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>

extern "C" char* program_invocation_short_name;  // glibc

namespace quorvia::platform {
namespace {

std::mutex& sinkMutex() {
  static auto* mu = new std::mutex;  // never destroyed: logging may run during exit
  return *mu;
}

LogSink& installedSink() {
  static auto* sink = new LogSink;
  return *sink;
}

void writeToStderr(std::string_view message) {
  const auto now = std::chrono::system_clock::now();
  const std::time_t secs = std::chrono::system_clock::to_time_t(now);
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()) % 1000;
  std::tm local{};
  localtime_r(&secs, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  std::fprintf(stderr, "%s.%03d %s[%d:%ld] %.*s\n", stamp, static_cast<int>(ms.count()),
               program_invocation_short_name, static_cast<int>(getpid()),
               static_cast<long>(syscall(SYS_gettid)), static_cast<int>(message.size()),
               message.data());
}

}  // namespace

void NSLog(std::string_view message) {
  std::lock_guard lock(sinkMutex());
  if (installedSink()) {
    installedSink()(message);
  } else {
    writeToStderr(message);
  }
}

void setLogSink(LogSink sink) {
  std::lock_guard lock(sinkMutex());
  installedSink() = std::move(sink);
}

}  // namespace quorvia::platform
