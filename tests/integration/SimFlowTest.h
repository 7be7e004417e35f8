#pragma once
// Fixture of the end-to-end tests: an in-process quorvia-devserver on 127.0.0.1 (ephemeral
// port, temporary database) and quorvia-sim as a child process pointed at it.

#include <memory>
#include <string>

#include "integration/SimProcess.h"
#include "tools/DevServerFixture.h"

namespace quorvia::testing {

class SimFlowTest : public devserver::testing::DevServerTest {
 protected:
  using Json = SimProcess::Json;
  static constexpr const char* kAppToken = "sim-app";
  static constexpr const char* kPushTokenHex = "0001abff10";

  void SetUp() override;
  void TearDown() override;

  std::string baseURL() const { return "http://127.0.0.1:" + std::to_string(port_); }
  // Creates a poll of kAppToken with `options` (texts) and returns its id.
  std::int64_t createPollWithOptions(const std::string& question,
                                     const std::vector<std::string>& options);
  // Launches with interception on and registers kPushTokenHex; expects the access token stored.
  void launchAndRegister(const Json& delegate = nullptr);
  // Becomes active and waits until the fetched poll `question` is on screen and settled.
  Json becomeActiveAndShow(const std::string& question);
  // The replies the service recorded for `pollId`.
  Json repliesOf(std::int64_t pollId);

  // Starts a fresh simulator (with data of its own) in place of the current one.
  void restartSimulator();
  // Quits the simulator, expecting a clean exit (and no error events unless expected).
  void finishSimulator();

  std::unique_ptr<SimProcess> sim_;
  // Tests of bad input expect error events; the others fail on any.
  bool errorsExpected_ = false;
  int simulators_ = 0;
};

}  // namespace quorvia::testing
