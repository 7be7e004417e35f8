// The poll model: values kept as they stand, missing pieces that are no
// error, and shapes that raise for the callers' guards.

#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/Error.h"
#include "sdk/SDKState.h"
#include "service/QVModelPoll.h"
#include "support/PlatformTest.h"

namespace quorvia {
namespace {

using platform::Value;

class PollModelTest : public testing::PlatformTest {};

TEST_F(PollModelTest, FactoryStoresValuesAsTheyStand) {
  const auto poll = QVModelPoll::objectWithDictionary(
      Value{{"id", 7},
            {"question", "Lunch?"},
            {"options", {{{"text", "Yes"}}, {{"text", "Menu"}, {"link", "https://x.test/m"}}}}});
  EXPECT_EQ(poll->objectId(), Value(7)) << "a numeric id stays a number";
  EXPECT_EQ(poll->question(), Value("Lunch?"));
  ASSERT_EQ(poll->options().size(), 2u);
  EXPECT_EQ(poll->options()[0]->text(), Value("Yes"));
  EXPECT_FALSE(poll->options()[0]->link()) << "no \"link\" leaves the link nil";
  EXPECT_EQ(poll->options()[1]->link(), Value("https://x.test/m"));
  EXPECT_TRUE(log_.lines().empty());
}

// Missing pieces give a poll (a missing id writes a line); malformed shapes
// raise, not swallowed: each caller decides whether to write a line.
TEST_F(PollModelTest, MissingPiecesAreNotErrorsButBadShapesRaise) {
  struct Case {
    const char* name;
    std::optional<Value> dict;
    bool raises;
    int nilIdLines = 0;
    std::size_t options = 0;
  };
  const auto withOptions = [&](Value options) { return Value{{"id", 1}, {"options", options}}; };
  const Case cases[] = {
      {"no id", Value{{"question", "Q"}, {"options", Value::array()}}, false, 1},
      {"no options", Value{{"id", "p1"}}, false},
      {"null id is a value", Value{{"id", nullptr}}, false},
      {"options dictionary without entries", withOptions(Value::object()), false},
      {"option without text", withOptions(Value::array({Value::object()})), false, 0, 1},
      {"nil dictionary", std::nullopt, false, 1},
      {"a poll that is a string", Value("poll"), true},
      {"a poll that is an array", Value::array({1, 2}), true},
      {"a poll that is null", Value(nullptr), true},
      {"options as a string", withOptions("Yes,No"), true},
      {"options null", withOptions(nullptr), true},
      {"an option that is a string", withOptions(Value::array({"Yes"})), true},
      {"options a single option", withOptions(Value{{"text", "Yes"}}), true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    log_.clear();
    const Value* dict = c.dict ? &*c.dict : nullptr;
    if (c.raises) {
      EXPECT_THROW(QVModelPoll::objectWithDictionary(dict), platform::Exception);
      continue;
    }
    const auto poll = QVModelPoll::objectWithDictionary(dict);
    ASSERT_NE(poll, nullptr);
    EXPECT_EQ(log_.count("nil id"), c.nilIdLines);
    EXPECT_EQ(poll->options().size(), c.options);
  }
}

TEST_F(PollModelTest, RemoteNotificationWithoutAUsablePollIsDroppedSilently) {
  for (const Value& payload : {Value{{"aps", Value::object()}}, Value{{"poll", "junk"}},
                               Value{{"poll", {{"id", 1}, {"options", 5}}}}}) {
    EXPECT_NO_THROW(QuorviaSDK::handleRemoteNotification(payload)) << payload.dump();
  }
  EXPECT_EQ(sdk::SDKState::shared().banner->presentedPollView(), nullptr);
  EXPECT_TRUE(log_.lines().empty());
}

}  // namespace
}  // namespace quorvia
