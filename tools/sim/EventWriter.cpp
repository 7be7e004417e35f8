#include "EventWriter.h"

namespace quorvia::sim {

void EventWriter::write(const std::string& name, const nlohmann::ordered_json& fields) {
  nlohmann::ordered_json event = {{"event", name}};
  if (fields.is_object()) {
    for (const auto& [key, value] : fields.items()) event[key] = value;
  }
  const std::string line =
      event.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
  std::lock_guard lock(mutex_);
  std::fwrite(line.data(), 1, line.size(), out_);
  std::fflush(out_);
}

void EventWriter::error(const std::string& message) { write("error", {{"message", message}}); }

}  // namespace quorvia::sim
