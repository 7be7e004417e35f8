#pragma once

#include <cstdio>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

namespace quorvia::sim {

// Writes the simulator's events, one JSON object per line, flushing after each so that a
// driving process sees every event as soon as it happens. The SDK's log sink may call it from
// any thread, so writes are serialised.
class EventWriter final {
 public:
  // Does not own `out`, which must outlive the writer.
  explicit EventWriter(std::FILE* out) : out_(out) {}
  EventWriter(const EventWriter&) = delete;
  EventWriter& operator=(const EventWriter&) = delete;

  // Writes {"event": name, ...fields}. `fields` must be an object (or null for none). Text
  // that is not UTF-8 is written with replacement characters rather than dropped.
  void write(const std::string& name, const nlohmann::ordered_json& fields = nullptr);
  // Writes {"event":"error","message":message}.
  void error(const std::string& message);

 private:
  std::mutex mutex_;
  std::FILE* out_;
};

}  // namespace quorvia::sim
