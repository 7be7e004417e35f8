// The real simulator (a child process) against the real service (in-process, on loopback): a poll
// arriving by fetch or push is shown, answered and recorded; and the platform's callbacks go
// through the SDK's interception: library first, then the host, each completion called once.
#include <filesystem>

#include "integration/ToolProcess.h"
#include "platform/ApplicationDelegateRuntime.h"
#include "tools/DevServerFixture.h"

namespace quorvia::testing {
namespace {

using devserver::testing::json;
using Json = ToolProcess::Json;
constexpr const char* kTea = "\xF0\x9F\x8D\xB5 Tea";
constexpr const char* kCoffee = "\xE2\x98\x95 Coffee";

class SimFlowTest : public devserver::testing::DevServerTest {
 protected:
  static constexpr const char* kApp = "sim-app";
  static constexpr const char* kDevice = "0001abff10";

  void TearDown() override {
    finishSimulator();
    DevServerTest::TearDown();
  }

  // Starts a fresh simulator, with data of its own, in place of any current one.
  void restartSimulator() {
    finishSimulator();
    const auto data = directory_ / ("sim-" + std::to_string(++simulators_));
    std::filesystem::create_directories(data);
    sim_ = std::make_unique<ToolProcess>(std::vector<std::string>{
        QUORVIA_SIM_PATH, "--data-dir", data.string(), "--service-url",
        "http://127.0.0.1:" + std::to_string(port_)});
  }
  // Quits the simulator, expecting a clean exit and no error events unless some were expected.
  void finishSimulator() {
    if (!sim_) return;
    EXPECT_EQ(sim_->finish(), 0);
    EXPECT_TRUE(errorsExpected_ || sim_->eventsNamed("error").empty()) << sim_->output();
    sim_.reset();
  }
  void launch(const Json& delegate, bool swizzling = true) {
    sim_->send({{"cmd", "launch"},
                {"appToken", kApp},
                {"launchOptions", nullptr},
                {"swizzling", swizzling},
                {"delegate", delegate}});
  }
  // Launches with interception on and registers kDevice; expects the access token stored.
  void launchAndRegister(const Json& delegate = nullptr) {
    launch(delegate);
    sim_->send({{"cmd", "deviceToken"}, {"hex", kDevice}});
    ASSERT_TRUE(sim_->waitFor({{"event", "registered"}, {"pushToken", kDevice}}));
    ASSERT_TRUE(sim_->state()["accessToken"].is_string());
  }

  std::unique_ptr<ToolProcess> sim_;
  bool errorsExpected_ = false;
  int simulators_ = 0;
};

// The index of the first event that has all of `fields`, or -1.
std::ptrdiff_t indexOf(const std::vector<Json>& events, const Json& fields) {
  auto found = std::find_if(events.begin(), events.end(),
                            [&](const Json& e) { return ToolProcess::matches(e, fields); });
  return found == events.end() ? -1 : found - events.begin();
}

TEST_F(SimFlowTest, PollArrivingByFetchOrPushIsShownAnsweredAndRecordedOnce) {
  // The question, whether it is pushed (else fetched), the option tapped (-1: the close button)
  // and the reply that is sent.
  const std::tuple<std::string, bool, int, std::string> cases[] = {
      {"Fetched: tea or coffee?", false, 1, kCoffee},
      {"Pushed: tea or coffee?", true, 0, kTea},
      {"Pushed: keep the dark theme?", true, -1, "Dismiss"},
  };
  for (const auto& [question, pushed, option, reply] : cases) {
    SCOPED_TRACE(question);
    restartSimulator();
    const json poll = createPoll(kApp, question, {{{"text", kTea}}, {{"text", kCoffee}}});
    ASSERT_NO_FATAL_FAILURE(launchAndRegister());
    const Json dictionary = {
        {"id", poll["id"]}, {"question", question}, {"options", poll["options"]}};
    sim_->send(pushed ? Json{{"cmd", "push"},
                             {"payload", {{"aps", {{"alert", question}}}, {"poll", dictionary}}}}
                      : Json{{"cmd", "becomeActive"}});
    ASSERT_TRUE(sim_->waitFor({{"event", "presented"}, {"question", question}}));
    // The slide takes 0.3 s of the simulator's clock.
    Json state = sim_->state(0.4);
    EXPECT_EQ(state["banner"]["question"], question) << state.dump();
    EXPECT_EQ(state["banner"]["options"], Json::array({kTea, kCoffee}));
    if (option >= 0) {
      sim_->send({{"cmd", "tapCard"}});
      ASSERT_TRUE(sim_->waitFor({{"event", "expanded"}, {"question", question}}));
      EXPECT_EQ(sim_->state(0.4)["backdrop"], (Json{{"alpha", 1.0}})) << "the backdrop faded in";
      sim_->send({{"cmd", "tapOption"}, {"index", option}});
    } else {
      sim_->send({{"cmd", "tapClose"}});
      ASSERT_TRUE(sim_->waitForLog("QuorviaSDK: User dismissed poll: " + question));
    }
    ASSERT_TRUE(sim_->waitFor(
        {{"event", "replied"}, {"pollId", poll["id"].dump()}, {"replyText", reply}, {"error", nullptr}}));
    // The reply ran under one background task.
    std::optional<Json> end = sim_->waitFor({{"event", "backgroundTask"}, {"action", "end"}});
    ASSERT_TRUE(end);
    Json begin = *end;
    begin["action"] = "begin";
    EXPECT_EQ(sim_->eventsNamed("backgroundTask"), (std::vector<Json>{begin, *end}));
    const json replies = adminGet("/admin/polls/" + poll["id"].dump() + "/replies")["replies"];
    ASSERT_EQ(replies.size(), 1u) << replies.dump();
    EXPECT_EQ(replies[0]["reply_text"], reply);
    EXPECT_EQ(replies[0]["device"]["push_token"], kDevice);
    EXPECT_FALSE(sim_->state(0.4)["presentedPollView"].get<bool>()) << "the banner slid out";
  }
}

// The lifecycle commands change the app's activity as a host's window focus
// does: the app starts inactive, becoming active fetches polls once however
// often it is said, and resigning, going to the background or terminating
// make it inactive, so that the next activation fetches again.
TEST_F(SimFlowTest, LifecycleCommandsChangeTheAppsActivityAsTheHostsFocusDoes) {
  restartSimulator();
  ASSERT_NO_FATAL_FAILURE(launchAndRegister());
  EXPECT_FALSE(sim_->state()["active"].get<bool>()) << "a launched app is not yet in front";
  const std::pair<const char*, bool> steps[] = {
      {"becomeActive", true}, {"becomeActive", true},     {"resignActive", false},
      {"becomeActive", true}, {"enterBackground", false}, {"enterBackground", false},
      {"becomeActive", true}, {"terminate", false},
  };
  for (const auto& [command, active] : steps) {
    sim_->send({{"cmd", command}});
    EXPECT_EQ(sim_->state(0.3)["active"], active) << command;
  }
  finishSimulator();
  stopServer();  // the request log is complete now
  const auto fetches = std::count_if(lines_.begin(), lines_.end(), [](const std::string& line) {
    return line.starts_with("GET /apps/sim-app/polls/ ");
  });
  EXPECT_EQ(fetches, 1 + 3) << "at launch, then at each activation";
}

TEST_F(SimFlowTest, BadCommandGetsAnErrorAndTheSimulatorGoesOn) {
  errorsExpected_ = true;
  restartSimulator();
  const std::vector<std::string> bad = {
      "not json",
      "[1, 2]",
      R"({"no":"cmd"})",
      R"({"cmd":"fly"})",
      R"({"cmd":"launch"})",
      R"({"cmd":"launch","appToken":"A","swizzling":"yes"})",
      R"({"cmd":"launch","appToken":"A","delegate":{"implements":["application:fly:"]}})",
      R"({"cmd":"launch","appToken":"A","settings":{"types":-1}})",
      R"({"cmd":"deviceToken","hex":"abc"})",
      R"({"cmd":"push","payload":[1]})",
      R"({"cmd":"tapCard"})",
      R"({"cmd":"tapOption","index":"first"})",
      R"({"cmd":"wait","seconds":-1})",
      R"({"cmd":"request","op":"fetchEverything","url":"http://127.0.0.1:1/"})",
      R"({"cmd":"keychain","op":"steal"})"};
  for (const auto& line : bad) {
    ASSERT_TRUE(sim_->write(line + "\n"));
    const auto error = sim_->waitForEvent("error");
    ASSERT_TRUE(error) << "no error for " << line;
    EXPECT_FALSE((*error)["message"].get<std::string>().empty()) << line;
  }
  // None of the refused launches started the SDK or changed the host.
  EXPECT_EQ(sim_->state()["addedMethods"], Json::array());
  EXPECT_TRUE(sim_->eventsNamed("log").empty());
  // A good command still works afterwards.
  sim_->send({{"cmd", "launch"}, {"appToken", "A"}, {"launchOptions", nullptr}});
  ASSERT_TRUE(sim_->waitForLog("QuorviaSDK: Initialized SDK with app token: A"));
  EXPECT_EQ(sim_->eventsNamed("error").size(), bad.size());
}

TEST_F(SimFlowTest, InterceptedCallbackRunsLibraryThenHostAndCompletesOnce) {
  const std::string question = "Which colour?";
  const json poll = createPoll(kApp, question, {{{"text", "Red"}}, {{"text", "Blue"}}});
  const Json payload = {{"aps", {{"alert", question}}},
                        {"poll", {{"id", poll["id"]}, {"question", question}}}};
  const std::string fetch(platform::kDidReceiveRemoteNotificationFetchSelector);
  const std::string action(platform::kHandleActionSelector);
  const Json push = {{"cmd", "push"}, {"payload", payload}, {"fetchCompletion", true}};
  const Json red = {{"cmd", "action"}, {"identifier", "Red"}, {"payload", payload}};
  const Json blue = {{"cmd", "action"},
                     {"identifier", "Blue"},
                     {"payload", payload},
                     {"responseInfo", {{"UIUserNotificationActionResponseTypedTextKey", "hi"}}}};
  const std::string withInfo(platform::kHandleActionWithResponseInfoSelector);
  // The host's delegate, the command delivering a callback, that callback, and whether the host
  // implements it.
  const std::tuple<Json, Json, std::string, bool> cases[] = {
      {{{"implements", {fetch}}}, push, fetch, true},
      {{{"implements", Json::array()}}, push, fetch, false},
      {{{"superclassImplements", {fetch}}}, push, fetch, false},
      {{{"implements", {action}}}, red, action, true},
      {nullptr, blue, withInfo, false},
  };
  for (const auto& [delegate, command, selector, hostRuns] : cases) {
    SCOPED_TRACE(selector + " " + delegate.dump());
    // What the library does first: present the pushed poll, or start sending the chosen answer.
    const Json libraryWork =
        selector == fetch
            ? Json{{"event", "log"}, {"line", "QuorviaSDK: Presenting poll: " + question}}
            : Json{{"event", "backgroundTask"}, {"action", "begin"}};
    const Json hostCall = {{"event", "hostCallback"}, {"selector", selector}};
    restartSimulator();
    ASSERT_NO_FATAL_FAILURE(launchAndRegister(delegate));
    sim_->send(command);
    ASSERT_TRUE(sim_->waitForEvent("completion"));
    ASSERT_TRUE(sim_->waitFor(libraryWork));
    if (selector != fetch) {
      ASSERT_TRUE(sim_->waitFor({{"event", "replied"}, {"replyText", command["identifier"]}}));
    }
    // Time for a second, wrong completion or host call to show up.
    const Json added = sim_->state(0.5)["addedMethods"];
    const auto completions = sim_->eventsNamed("completion");
    ASSERT_EQ(completions.size(), 1u) << "exactly one completion";
    EXPECT_EQ(completions[0]["selector"], selector);
    // The host completes a fetch with "no data" (1), the library with "new data" (0).
    EXPECT_EQ(completions[0]["result"], selector == fetch ? Json(hostRuns ? 1 : 0) : Json());
    const auto& events = sim_->events();
    const auto host = indexOf(events, hostCall);
    EXPECT_EQ(std::count_if(events.begin(), events.end(),
                            [&](const Json& e) { return ToolProcess::matches(e, hostCall); }),
              hostRuns ? 1 : 0);
    EXPECT_TRUE(!hostRuns || indexOf(events, libraryWork) < host)
        << "the library's work comes before the host's code";
    EXPECT_EQ(added.dump().find("\"" + selector + "\"") == std::string::npos, hostRuns)
        << "the library adds the callbacks the host lacks: " << added.dump();
  }
}

TEST_F(SimFlowTest, DeviceTokenReachesTheLibraryBeforeTheHostAndWithoutInterceptionNothing) {
  const std::string registered(platform::kDidRegisterForRemoteNotificationsSelector);
  restartSimulator();
  launch({{"implements", {registered}}}, false);
  sim_->send({{"cmd", "deviceToken"}, {"hex", kDevice}});
  ASSERT_TRUE(sim_->waitForEvent("hostCallback"));
  Json state = sim_->state(0.3);
  EXPECT_TRUE(state["accessToken"].is_null()) << "with interception off the host must forward";
  EXPECT_EQ(state["addedMethods"], Json::array());
  // The host forwarding the token itself registers it.
  sim_->send({{"cmd", "setDeviceToken"}, {"hex", kDevice}});
  ASSERT_TRUE(sim_->waitFor({{"event", "registered"}}));
  EXPECT_TRUE(sim_->state()["accessToken"].is_string());

  restartSimulator();
  ASSERT_NO_FATAL_FAILURE(launchAndRegister({{"implements", {registered}}}));
  const auto library =
      indexOf(sim_->events(),
              {{"event", "log"}, {"line", "QuorviaSDK: Received device push token from iOS."}});
  ASSERT_GE(library, 0);
  EXPECT_LT(library, indexOf(sim_->events(), {{"event", "hostCallback"}}));
}

}  // namespace
}  // namespace quorvia::testing
