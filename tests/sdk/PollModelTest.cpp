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
  const Value dict = {
      {"id", 7},
      {"question", "Lunch?"},
      {"options",
       Value::array({{{"text", "Yes"}}, {{"text", "Menu"}, {"link", "https://x.test/m"}}})}};
  const auto poll = QVModelPoll::objectWithDictionary(dict);
  EXPECT_EQ(poll->objectId(), Value(7)) << "a numeric id stays a number";
  EXPECT_EQ(poll->question(), Value("Lunch?"));
  ASSERT_EQ(poll->options().size(), 2u);
  EXPECT_EQ(poll->options()[0]->text(), Value("Yes"));
  EXPECT_FALSE(poll->options()[0]->link()) << "no \"link\" leaves the link nil";
  EXPECT_EQ(poll->options()[1]->link(), Value("https://x.test/m"));
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(PollModelTest, MissingPiecesAreNotErrors) {
  struct Case {
    const char* name;
    std::optional<Value> dict;
    int nilIdLines;
    std::size_t options;
  };
  const Case cases[] = {
      {"no id", Value{{"question", "Q"}, {"options", Value::array()}}, 1, 0},
      {"no options", Value{{"id", "p1"}}, 0, 0},
      {"null id is a value", Value{{"id", nullptr}}, 0, 0},
      {"options dictionary without entries", Value{{"id", 1}, {"options", Value::object()}}, 0, 0},
      {"option without text", Value{{"id", 1}, {"options", Value::array({Value::object()})}}, 0, 1},
      {"nil dictionary", std::nullopt, 1, 0},
  };
  for (const auto& c : cases) {
    log_.clear();
    const auto poll = QVModelPoll::objectWithDictionary(c.dict ? &*c.dict : nullptr);
    ASSERT_NE(poll, nullptr) << c.name;
    EXPECT_EQ(log_.count("nil id"), c.nilIdLines) << c.name;
    EXPECT_EQ(poll->options().size(), c.options) << c.name;
  }
}

// Raised, not swallowed: each caller decides whether to write a line.
TEST_F(PollModelTest, MalformedShapesRaise) {
  const Value cases[] = {
      Value("a poll that is a string"),
      Value::array({1, 2}),
      Value(nullptr),
      Value{{"id", 1}, {"options", "Yes,No"}},
      Value{{"id", 1}, {"options", nullptr}},
      Value{{"id", 1}, {"options", Value::array({"Yes"})}},
      Value{{"id", 1}, {"options", Value{{"text", "Yes"}}}},
  };
  for (const auto& dict : cases) {
    EXPECT_THROW(QVModelPoll::objectWithDictionary(dict), platform::Exception) << dict.dump();
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
