#pragma once

#include <string>
#include <vector>

namespace quorvia::devserver {

// What became of one payload sent to a list of devices.
struct PushOutcome {
  size_t published = 0;  // messages the broker acknowledged
  std::string error;     // empty when the broker was reached
};

// Sends one payload to many devices' topics. Implementations are safe to call from several
// threads at once and never wait longer than their own time limit.
class PushFanout {
 public:
  virtual ~PushFanout() = default;
  // `pushTokens` are the devices' registered push tokens (hex text).
  virtual PushOutcome publish(const std::vector<std::string>& pushTokens,
                              const std::string& payload) = 0;
};

}  // namespace quorvia::devserver
