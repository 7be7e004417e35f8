#include "platform/Log.h"

#include <mutex>

#include "quorvia/platform/Environment.h"

namespace quorvia::platform {

void NSLog(std::string_view message) {
  // Never destroyed: logging may run during exit.
  static auto* const mu = new std::mutex;
  std::lock_guard lock(*mu);
  environment().log(message);
}

}  // namespace quorvia::platform
