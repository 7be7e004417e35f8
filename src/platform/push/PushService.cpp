#include "quorvia/platform/PushService.h"

#include <cstdlib>

namespace quorvia::platform {

PushService::~PushService() = default;

std::string defaultPushBrokerURL() {
  if (const char* broker = std::getenv("QUORVIA_PUSH_BROKER"); broker && *broker) return broker;
  return "mqtt://127.0.0.1:1883";
}

}  // namespace quorvia::platform
