#pragma once
// Runs quorvia-sim as a child process, writes commands to it and reads its events, waiting on
// each expected event with a generous real-time limit (never sleeping).

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace quorvia::testing {

class SimProcess final {
 public:
  using Json = nlohmann::ordered_json;
  static constexpr std::chrono::seconds kTimeout{30};

  // Starts the simulator with its data in `dataDirectory`, talking to `serviceBaseURL`.
  SimProcess(const std::string& serviceBaseURL, const std::filesystem::path& dataDirectory);
  // Ends the child if it is still running (closing its input, killing it by pid if it lingers).
  ~SimProcess();
  SimProcess(const SimProcess&) = delete;
  SimProcess& operator=(const SimProcess&) = delete;

  void send(const Json& command);
  void sendLine(const std::string& line);

  // The first event, read before or during this call, that satisfies `match` and that no
  // earlier waitFor returned; nullopt when none came within kTimeout or the output ended.
  std::optional<Json> waitFor(const std::function<bool(const Json&)>& match);
  std::optional<Json> waitForEvent(const std::string& name);
  std::optional<Json> waitForLog(const std::string& line);
  // Sends "state" and returns the state event (null when none came).
  Json state();
  // Lets the simulator's main loop run for `seconds`, then returns its state.
  Json stateAfter(double seconds);

  // Every event read so far, in order.
  const std::vector<Json>& events() const { return events_; }
  // Events named `name` among them.
  std::vector<Json> eventsNamed(const std::string& name) const;

  // Sends "quit", waits for the exit and returns the exit status (-1 on a timeout or a signal).
  int quit();

 private:
  bool readLine(std::chrono::steady_clock::time_point deadline);

  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  std::string buffer_;
  std::vector<Json> events_;
  std::vector<bool> consumed_;  // events already returned by waitFor
};

}  // namespace quorvia::testing
