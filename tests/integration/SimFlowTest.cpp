#include "integration/SimFlowTest.h"

#include <filesystem>

namespace quorvia::testing {

void SimFlowTest::SetUp() {
  DevServerTest::SetUp();
  restartSimulator();
}

void SimFlowTest::restartSimulator() {
  finishSimulator();
  const auto data = directory_ / ("app-data-" + std::to_string(++simulators_));
  std::filesystem::create_directories(data);
  sim_ = std::make_unique<SimProcess>(baseURL(), data);
}

void SimFlowTest::TearDown() {
  finishSimulator();
  DevServerTest::TearDown();
}

void SimFlowTest::finishSimulator() {
  if (!sim_) return;
  EXPECT_EQ(sim_->quit(), 0) << "the simulator exits cleanly on quit";
  if (!errorsExpected_) {
    for (const auto& e : sim_->eventsNamed("error")) ADD_FAILURE() << "unexpected " << e.dump();
  }
  sim_.reset();
}

std::int64_t SimFlowTest::createPollWithOptions(const std::string& question,
                                                const std::vector<std::string>& options) {
  nlohmann::json list = nlohmann::json::array();
  for (const auto& text : options) list.push_back({{"text", text}});
  nlohmann::json poll = createPoll(kAppToken, question, list);
  return poll.is_object() ? poll.value("id", std::int64_t{0}) : 0;
}

void SimFlowTest::launchAndRegister(const Json& delegate) {
  Json launch = {
      {"cmd", "launch"}, {"appToken", kAppToken}, {"launchOptions", nullptr}, {"swizzling", true}};
  if (!delegate.is_null()) launch["delegate"] = delegate;
  sim_->send(launch);
  sim_->send({{"cmd", "deviceToken"}, {"hex", kPushTokenHex}});
  ASSERT_TRUE(sim_->waitForLog("QuorviaSDK: Successfully registered device push token."));
  const Json state = sim_->state();
  ASSERT_TRUE(state["accessToken"].is_string()) << state.dump();
}

SimFlowTest::Json SimFlowTest::becomeActiveAndShow(const std::string& question) {
  sim_->send({{"cmd", "becomeActive"}});
  EXPECT_TRUE(sim_->waitForLog("QuorviaSDK: Presenting poll: " + question));
  // The slide takes 0.3 s of the simulator's clock.
  return sim_->stateAfter(0.4);
}

SimFlowTest::Json SimFlowTest::repliesOf(std::int64_t pollId) {
  return adminGet("/admin/polls/" + std::to_string(pollId) + "/replies")["replies"];
}

}  // namespace quorvia::testing
