#include "platform/push/PushServiceSlot.h"

#include <cstdlib>
#include <mutex>

#include "quorvia/platform/Device.h"

namespace quorvia::platform {
namespace {

struct Slot {
  std::mutex mu;
  bool chosen = false;
  std::shared_ptr<PushService> service;
};

Slot& slot() {
  static auto* slot = new Slot;  // the process's service is never torn down
  return *slot;
}

}  // namespace

std::shared_ptr<PushService> installedPushService() {
  std::lock_guard lock(slot().mu);
  if (!slot().chosen) {
    slot().chosen = true;
    if (!std::getenv("QUORVIA_TEST")) {
      slot().service = makeMqttPushService({defaultPushBrokerURL(), dataDirectory()});
    }
  }
  return slot().service;
}

void installPushService(std::shared_ptr<PushService> service) {
  std::shared_ptr<PushService> previous;
  {
    std::lock_guard lock(slot().mu);
    slot().chosen = true;
    previous = std::exchange(slot().service, std::move(service));
  }
  // Released outside the lock: destroying a service waits for its thread.
}

}  // namespace quorvia::platform
