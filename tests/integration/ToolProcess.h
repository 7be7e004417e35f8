#pragma once
// One of the tools as a child process that reads commands and writes one JSON event a line.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "support/ChildProcess.h"

namespace quorvia::testing {

class ToolProcess final {
 public:
  using Json = nlohmann::ordered_json;

  // Starts argv[0] with `environment` ("NAME=value") in front of this process's environment;
  // standard error goes to `errorFile` when one is named.
  explicit ToolProcess(std::vector<std::string> argv, std::vector<std::string> environment = {},
                       const std::string& errorFile = "")
      : process_(std::move(argv), {std::move(environment), errorFile}) {}

  bool write(const std::string& data) { return process_.write(data); }
  void send(const Json& command) { EXPECT_TRUE(write(command.dump() + "\n")) << "input closed"; }

  // The first event, read before or during this call, that has all of `fields` and that no
  // earlier waitFor returned; nullopt when none came within the bound or the output ended.
  std::optional<Json> waitFor(const Json& fields) {
    const auto deadline = ChildProcess::Clock::now() + ChildProcess::kBound;
    for (size_t next = 0;; ++next) {
      while (next >= events().size()) {
        if (!process_.readLine(deadline)) return std::nullopt;
      }
      if (!consumed_[next] && matches(events_[next], fields)) {
        consumed_[next] = true;
        return events_[next];
      }
    }
  }
  std::optional<Json> waitForEvent(const std::string& name) { return waitFor({{"event", name}}); }
  std::optional<Json> waitForLog(const std::string& line) {
    return waitFor({{"event", "log"}, {"line", line}});
  }
  // True when `event` has all of `fields`.
  static bool matches(const Json& event, const Json& fields) {
    for (const auto& [key, value] : fields.items()) {
      if (event.value(key, Json()) != value) return false;
    }
    return true;
  }
  // The simulator's state; after letting its main loop run for `seconds` when given.
  Json state(double seconds = 0) {
    if (seconds > 0) send({{"cmd", "wait"}, {"seconds", seconds}});
    send({{"cmd", "state"}});
    return waitForEvent("state").value_or(Json());
  }

  // The events of every line read so far.
  const std::vector<Json>& events() {
    for (std::size_t i = events_.size(); i < process_.lines().size(); ++i) {
      Json event = Json::parse(process_.lines()[i], nullptr, false);
      events_.push_back(event.is_discarded() ? Json{{"event", "unparsable"}} : event);
      consumed_.push_back(false);
    }
    return events_;
  }
  std::vector<Json> eventsNamed(const std::string& name) {
    std::vector<Json> found;
    for (const Json& e : events()) {
      if (e.value("event", "") == name) found.push_back(e);
    }
    return found;
  }
  const std::string& output() const { return process_.output(); }
  int finish() { return process_.finish(); }

 private:
  ChildProcess process_;
  std::vector<Json> events_;
  std::vector<bool> consumed_;  // events already returned by waitFor
};

}  // namespace quorvia::testing
