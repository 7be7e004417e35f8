// The platform's callbacks as the simulator delivers them through the SDK's interception: the
// library's work first, then the host's own code, and each completion called exactly once, by
// the host when it implements the callback and by the library otherwise.
#include <gtest/gtest.h>

#include "integration/SimFlowTest.h"
#include "quorvia/platform/ApplicationDelegate.h"
#include "quorvia/platform/Runtime.h"

namespace quorvia::testing {
namespace {

std::ptrdiff_t indexOf(const std::vector<SimProcess::Json>& events,
                       const std::function<bool(const SimProcess::Json&)>& match) {
  for (std::size_t i = 0; i < events.size(); ++i) {
    if (match(events[i])) return static_cast<std::ptrdiff_t>(i);
  }
  return -1;
}

TEST_F(SimFlowTest, InterceptedCallbackRunsLibraryThenHostAndCompletesOnce) {
  const std::string question = "Which colour?";
  const auto pollId = createPollWithOptions(question, {"Red", "Blue"});
  ASSERT_GT(pollId, 0);
  const Json payload = {{"aps", {{"alert", question}}},
                        {"poll", {{"id", pollId}, {"question", question}}}};
  const std::string fetch(platform::kDidReceiveRemoteNotificationFetchSelector);
  const std::string action(platform::kHandleActionSelector);
  const std::string actionWithInfo(platform::kHandleActionWithResponseInfoSelector);

  struct Case {
    const char* name;
    Json delegate;
    Json command;
    std::string selector;
    bool hostRuns;
    // The "result" of the one completion expected: the host completes with no data (1), the
    // library with new data (0); an action's completion has none (null).
    Json completionResult;
    // An event of the library's own work, which comes before the host's code (its fields).
    Json libraryEvent;
  };
  const std::vector<Case> cases = {
      {"host implements the fetch callback",
       {{"implements", {fetch}}},
       {{"cmd", "push"}, {"payload", payload}, {"fetchCompletion", true}},
       fetch,
       true,
       1,
       {{"event", "log"}, {"line", "QuorviaSDK: Presenting poll: " + question}}},
      {"host lacks the fetch callback",
       {{"implements", Json::array()}},
       {{"cmd", "push"}, {"payload", payload}, {"fetchCompletion", true}},
       fetch,
       false,
       0,
       {{"event", "log"}, {"line", "QuorviaSDK: Presenting poll: " + question}}},
      {"only the host's superclass has it",
       {{"superclassImplements", {fetch}}},
       {{"cmd", "push"}, {"payload", payload}, {"fetchCompletion", true}},
       fetch,
       false,
       0,
       {{"event", "log"}, {"line", "QuorviaSDK: Presenting poll: " + question}}},
      {"host implements the action callback",
       {{"implements", {action}}},
       {{"cmd", "action"}, {"identifier", "Red"}, {"payload", payload}},
       action,
       true,
       nullptr,
       {{"event", "backgroundTask"}, {"action", "begin"}}},
      {"host lacks the action callback with response info",
       nullptr,
       {{"cmd", "action"},
        {"identifier", "Blue"},
        {"payload", payload},
        {"responseInfo", {{"UIUserNotificationActionResponseTypedTextKey", "hi"}}}},
       actionWithInfo,
       false,
       nullptr,
       {{"event", "log"}, {"line", "QuorviaSDK: Successfuly sent reply: Blue"}}},
  };

  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    restartSimulator();
    ASSERT_NO_FATAL_FAILURE(launchAndRegister(c.delegate));
    sim_->send(c.command);
    ASSERT_TRUE(sim_->waitForEvent("completion"));
    const auto isLibraryWork = [&c](const Json& e) {
      for (const auto& [key, value] : c.libraryEvent.items()) {
        if (!e.contains(key) || e[key] != value) return false;
      }
      return true;
    };
    ASSERT_TRUE(sim_->waitFor(isLibraryWork));
    // Time for a second, wrong completion to show up.
    const Json state = sim_->stateAfter(0.5);

    const auto& events = sim_->events();
    const auto completions = sim_->eventsNamed("completion");
    ASSERT_EQ(completions.size(), 1u) << "exactly one completion";
    EXPECT_EQ(completions[0]["selector"], c.selector);
    EXPECT_EQ(completions[0]["result"], c.completionResult);

    std::vector<Json> hostCalls;
    for (const auto& e : sim_->eventsNamed("hostCallback")) {
      if (e["selector"] == c.selector) hostCalls.push_back(e);
    }
    EXPECT_EQ(hostCalls.size(), c.hostRuns ? 1u : 0u);
    const Json added = state["addedMethods"];
    const bool recordedMissing =
        std::find(added.begin(), added.end(), Json(c.selector)) != added.end();
    EXPECT_EQ(recordedMissing, !c.hostRuns) << added.dump();
    if (c.hostRuns) {
      const auto library = indexOf(events, isLibraryWork);
      const auto host = indexOf(events, [&](const Json& e) {
        return e["event"] == "hostCallback" && e["selector"] == c.selector;
      });
      EXPECT_LT(library, host) << "the library's work comes before the host's code";
    }
  }
}

TEST_F(SimFlowTest, DeviceTokenReachesTheLibraryBeforeTheHostAndWithoutInterceptionNothing) {
  const std::string registered(platform::kDidRegisterForRemoteNotificationsSelector);
  sim_->send({{"cmd", "launch"},
              {"appToken", kAppToken},
              {"launchOptions", nullptr},
              {"swizzling", false},
              {"delegate", {{"implements", {registered}}}}});
  sim_->send({{"cmd", "deviceToken"}, {"hex", kPushTokenHex}});
  ASSERT_TRUE(sim_->waitForEvent("hostCallback"));
  Json state = sim_->stateAfter(0.3);
  EXPECT_TRUE(state["accessToken"].is_null()) << "with interception off the host must forward";
  EXPECT_EQ(state["addedMethods"], Json::array());

  // The host forwarding the token itself registers it.
  sim_->send({{"cmd", "setDeviceToken"}, {"hex", kPushTokenHex}});
  ASSERT_TRUE(sim_->waitForLog("QuorviaSDK: Successfully registered device push token."));
  EXPECT_TRUE(sim_->state()["accessToken"].is_string());

  restartSimulator();
  ASSERT_NO_FATAL_FAILURE(launchAndRegister({{"implements", {registered}}}));
  const auto& events = sim_->events();
  const auto library = indexOf(events, [](const Json& e) {
    return e["event"] == "log" && e["line"] == "QuorviaSDK: Received device push token from iOS.";
  });
  const auto host = indexOf(events, [](const Json& e) { return e["event"] == "hostCallback"; });
  ASSERT_GE(library, 0);
  EXPECT_LT(library, host);
}

}  // namespace
}  // namespace quorvia::testing
