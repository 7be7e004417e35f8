#include <gtest/gtest.h>

#include "quorvia/QuorviaSDK.h"
#include "sdk/SDKState.h"
#include "quorvia/platform/Error.h"
#include "service/QVModelPoll.h"
#include "ui/QVNotificationView.h"
#include "support/PlatformTest.h"

namespace quorvia {
namespace {

using platform::Value;

class PollModelTest : public testing::PlatformTest {};

TEST_F(PollModelTest, FactoryStoresValuesAsTheyStand) {
  const Value dict = {{"id", 7},
                      {"question", "Lunch?"},
                      {"options", Value::array({{{"text", "Yes"}},
                                                {{"text", "Menu"}, {"link", "https://x.test/m"}}})}};
  const auto poll = QVModelPoll::objectWithDictionary(dict);
  EXPECT_EQ(platform::describe(poll->objectId()), "7") << "a numeric id stays a number";
  EXPECT_TRUE(poll->objectId()->is_number());
  EXPECT_EQ(poll->question(), Value("Lunch?"));
  ASSERT_EQ(poll->options().size(), 2u);
  EXPECT_EQ(poll->options()[0]->text(), Value("Yes"));
  EXPECT_FALSE(poll->options()[0]->link()) << "no \"link\" leaves the link nil";
  EXPECT_EQ(poll->options()[1]->text(), Value("Menu"));
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
      {"empty options", Value{{"id", "p1"}, {"options", Value::array()}}, 0, 0},
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

TEST_F(PollModelTest, MalformedShapesRaiseForTheCallersGuards) {
  const Value cases[] = {
      Value("a poll that is a string"),
      Value::array({1, 2}),
      Value(nullptr),
      Value{{"id", 1}, {"options", "Yes,No"}},
      Value{{"id", 1}, {"options", 5}},
      Value{{"id", 1}, {"options", nullptr}},
      Value{{"id", 1}, {"options", Value::array({"Yes"})}},
      Value{{"id", 1}, {"options", Value{{"text", "Yes"}}}},
  };
  for (const auto& dict : cases) {
    EXPECT_THROW(QVModelPoll::objectWithDictionary(dict), platform::Exception) << dict.dump();
  }
}

TEST_F(PollModelTest, FetchResponsePresentsOnlyTheFirstPoll) {
  sdk::SDKState& state = sdk::SDKState::shared();
  struct Case {
    const char* name;
    Value response;
    bool raises;
  };
  const Case nothingShown[] = {
      {"empty results", Value{{"results", Value::array()}}, false},
      {"no results", Value{{"count", 0}}, false},
      {"not a dictionary", Value::array({1}), true},
      {"results not a list", Value{{"results", "x"}}, true},
  };
  for (const auto& c : nothingShown) {
    log_.clear();
    if (c.raises) {
      EXPECT_THROW(state.service->parsePollsReponse(c.response), platform::Exception) << c.name;
    } else {
      state.service->parsePollsReponse(c.response);
    }
    EXPECT_EQ(state.banner->presentedPollView(), nullptr) << c.name;
    EXPECT_TRUE(log_.lines().empty()) << c.name;
  }
  const Value three = {{"results", Value::array({{{"id", 1}, {"question", "One?"}},
                                                 {{"id", 2}, {"question", "Two?"}},
                                                 {{"id", 3}, {"question", "Three?"}}})}};
  state.service->parsePollsReponse(three);
  ASSERT_NE(state.banner->presentedPollView(), nullptr);
  EXPECT_EQ(state.banner->presentedPollView()->poll()->objectId(), Value(1)) << "only the first";
  EXPECT_EQ(log_.lines(), std::vector<std::string>{"QuorviaSDK: Presenting poll: One?"});
}

TEST_F(PollModelTest, RemoteNotificationWithMalformedPollIsDroppedWithALogLine) {
  QuorviaSDK::handleRemoteNotification(Value{{"aps", Value::object()}});
  EXPECT_TRUE(log_.lines().empty()) << "a payload without poll is not ours";
  EXPECT_NO_THROW(QuorviaSDK::handleRemoteNotification(Value{{"poll", "junk"}}));
}

}  // namespace
}  // namespace quorvia
