// The whole flow through the real simulator and the real service: registration, fetch, banner,
// answer, and what the service recorded.
#include <gtest/gtest.h>

#include "integration/SimFlowTest.h"

namespace quorvia::testing {
namespace {

constexpr const char* kTea = "\xF0\x9F\x8D\xB5 Tea";
constexpr const char* kCoffee = "\xE2\x98\x95 Coffee";

int countLines(const std::vector<std::string>& lines, const std::string& prefix) {
  int count = 0;
  for (const auto& line : lines) count += line.starts_with(prefix) ? 1 : 0;
  return count;
}

TEST_F(SimFlowTest, FetchedPollIsShownAnsweredAndRecordedOnceForTheDevice) {
  const std::string question = "Tea or coffee?";
  const auto pollId = createPollWithOptions(question, {kTea, kCoffee});
  ASSERT_GT(pollId, 0);
  ASSERT_NO_FATAL_FAILURE(launchAndRegister());

  Json state = becomeActiveAndShow(question);
  ASSERT_TRUE(state["presentedPollView"].get<bool>()) << state.dump();
  EXPECT_EQ(state["banner"]["question"], question);
  EXPECT_EQ(state["banner"]["frame"], Json::array({0, 20, 375, 330})) << "slid in to y 20";
  EXPECT_EQ(state["banner"]["expanded"], false);
  EXPECT_EQ(state["banner"]["options"], Json::array({kTea, kCoffee}));
  EXPECT_TRUE(state["backdrop"].is_null());

  sim_->send({{"cmd", "tapCard"}});
  ASSERT_TRUE(sim_->waitForLog("QuorviaSDK: User expanded poll: " + question));
  state = sim_->stateAfter(0.4);
  EXPECT_EQ(state["banner"]["expanded"], true) << state.dump();
  EXPECT_EQ(state["backdrop"], (Json{{"alpha", 1.0}})) << "the backdrop faded in";

  sim_->send({{"cmd", "tapOption"}, {"index", 1}});
  ASSERT_TRUE(sim_->waitForLog(std::string("QuorviaSDK: Successfuly sent reply: ") + kCoffee));
  ASSERT_TRUE(sim_->waitFor(
      [](const Json& e) { return e["event"] == "backgroundTask" && e["action"] == "end"; }));
  const auto tasks = sim_->eventsNamed("backgroundTask");
  ASSERT_EQ(tasks.size(), 2u) << "the reply ran under one background task";
  EXPECT_EQ(tasks[0]["action"], "begin");
  EXPECT_EQ(tasks[1]["action"], "end");
  EXPECT_EQ(tasks[0]["id"], tasks[1]["id"]);

  const Json replies = repliesOf(pollId);
  ASSERT_EQ(replies.size(), 1u) << replies.dump();
  EXPECT_EQ(replies[0]["reply_text"], kCoffee);
  EXPECT_EQ(replies[0]["device"]["push_token"], kPushTokenHex);
  EXPECT_EQ(replies[0]["device"]["app_token"], kAppToken);

  state = sim_->stateAfter(0.4);
  EXPECT_FALSE(state["presentedPollView"].get<bool>()) << "the banner slid out";

  // Becoming active again fetches, and the answered poll is not offered again.
  sim_->send({{"cmd", "becomeActive"}});
  state = sim_->stateAfter(1.0);
  EXPECT_FALSE(state["presentedPollView"].get<bool>()) << state.dump();
  EXPECT_EQ(countLines(requestLines(), "GET /apps/sim-app/polls/ 200"), 2)
      << "both became-active fetches reached the service with the access token";
  int presented = 0;
  for (const auto& e : sim_->eventsNamed("log")) {
    presented += e["line"].get<std::string>().starts_with("QuorviaSDK: Presenting poll:") ? 1 : 0;
  }
  EXPECT_EQ(presented, 1);
}

TEST_F(SimFlowTest, ClosingTheBannerRepliesDismissAndEndsTheOffer) {
  const std::string question = "Keep the dark theme?";
  const auto pollId = createPollWithOptions(question, {"Yes", "No"});
  ASSERT_NO_FATAL_FAILURE(launchAndRegister());
  const Json state = becomeActiveAndShow(question);
  ASSERT_TRUE(state["presentedPollView"].get<bool>()) << state.dump();

  sim_->send({{"cmd", "tapClose"}});
  ASSERT_TRUE(sim_->waitForLog("QuorviaSDK: User dismissed poll: " + question));
  ASSERT_TRUE(sim_->waitForLog("QuorviaSDK: Successfuly sent reply: Dismiss"));
  const Json replies = repliesOf(pollId);
  ASSERT_EQ(replies.size(), 1u) << replies.dump();
  EXPECT_EQ(replies[0]["reply_text"], "Dismiss");
  EXPECT_EQ(replies[0]["device"]["push_token"], kPushTokenHex);
  EXPECT_FALSE(sim_->stateAfter(0.4)["presentedPollView"].get<bool>());
}

TEST_F(SimFlowTest, BadCommandGetsAnErrorAndTheSimulatorGoesOn) {
  errorsExpected_ = true;
  const std::vector<std::string> bad = {
      "not json",
      "[1, 2]",
      R"({"no":"cmd"})",
      R"({"cmd":42})",
      R"({"cmd":"fly"})",
      R"({"cmd":"launch"})",
      R"({"cmd":"launch","appToken":"A","swizzling":"yes"})",
      R"({"cmd":"launch","appToken":"A","delegate":{"implements":["application:fly:"]}})",
      R"({"cmd":"launch","appToken":"A","settings":{"types":-1}})",
      R"({"cmd":"deviceToken","hex":"0g"})",
      R"({"cmd":"deviceToken","hex":"abc"})",
      R"({"cmd":"push","payload":[1]})",
      R"({"cmd":"tapCard"})",
      R"({"cmd":"tapOption","index":"first"})",
      R"({"cmd":"wait","seconds":-1})",
      R"({"cmd":"snapshot"})",
      R"({"cmd":"setDebug"})",
      R"({"cmd":"expireBackgroundTask"})",
      R"({"cmd":"request","op":"fetchEverything","url":"http://127.0.0.1:1/"})",
      R"({"cmd":"keychain","op":"steal"})",
  };
  for (const auto& line : bad) {
    sim_->sendLine(line);
    const auto error = sim_->waitForEvent("error");
    ASSERT_TRUE(error) << "no error for " << line;
    EXPECT_FALSE((*error)["message"].get<std::string>().empty()) << line;
  }
  // None of the refused launches started the SDK or changed the host.
  Json state = sim_->state();
  EXPECT_EQ(state["addedMethods"], Json::array()) << state.dump();
  EXPECT_TRUE(sim_->eventsNamed("log").empty());

  // A good command still works afterwards.
  sim_->send({{"cmd", "launch"}, {"appToken", "A"}, {"launchOptions", nullptr}});
  ASSERT_TRUE(sim_->waitForLog("QuorviaSDK: Initialized SDK with app token: A"));
  EXPECT_EQ(sim_->eventsNamed("error").size(), bad.size());
}

}  // namespace
}  // namespace quorvia::testing

namespace quorvia::testing {
namespace {

TEST_F(SimFlowTest, KeychainAndRequestCommandsReportWhatTheSdkReturned) {
  struct Case {
    Json command;
    Json result;
    bool failed;
  };
  const std::vector<Case> cases = {
      {{{"cmd", "keychain"}, {"op", "password"}, {"service", "s"}, {"account", "a"}},
       nullptr,
       true},
      {{{"cmd", "keychain"},
        {"op", "setPassword"},
        {"service", "s"},
        {"account", "a"},
        {"password", "p\xC3\xA4ss"}},
       true,
       false},
      {{{"cmd", "keychain"}, {"op", "password"}, {"service", "s"}, {"account", "a"}},
       "p\xC3\xA4ss",
       false},
      {{{"cmd", "keychain"}, {"op", "deletePassword"}, {"service", "s"}, {"account", "a"}},
       true,
       false},
      {{{"cmd", "keychain"}, {"op", "deletePassword"}, {"service", "s"}, {"account", "a"}},
       false,
       true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.command.dump());
    sim_->send(c.command);
    const auto answer = sim_->waitForEvent("keychain");
    ASSERT_TRUE(answer);
    EXPECT_EQ((*answer)["result"], c.result);
    EXPECT_EQ((*answer)["error"].is_object(), c.failed) << answer->dump();
  }

  createPollWithOptions("Listed?", {"Yes"});
  sim_->send(
      {{"cmd", "request"},
       {"op", "getJsonCachelessFromURL"},
       {"url", baseURL() + "/admin/polls?token=" + kAdminToken}});
  auto response = sim_->waitForEvent("response");
  ASSERT_TRUE(response);
  EXPECT_EQ((*response)["result"]["polls"][0]["question"], "Listed?") << response->dump();
  EXPECT_TRUE((*response)["error"].is_null());
  EXPECT_EQ((*response)["synchronous"], false) << "a network answer comes on the main queue";

  // Nothing listens on port 1 of loopback: a transport error, reported as such.
  sim_->send({{"cmd", "request"},
              {"op", "postToURL"},
              {"url", "http://127.0.0.1:1/x"},
              {"param", {{"k", "v"}}}});
  response = sim_->waitForEvent("response");
  ASSERT_TRUE(response);
  EXPECT_TRUE((*response)["result"].is_null());
  EXPECT_TRUE((*response)["error"].is_object()) << response->dump();
}

}  // namespace
}  // namespace quorvia::testing
