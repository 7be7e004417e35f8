// Splitting bodies written the SDK's way: unescaped key=value pairs joined by '&'.

#include <gtest/gtest.h>

#include "SdkForm.h"

namespace quorvia::devserver {
namespace {

using Entries = std::map<std::string, std::string>;

TEST(SdkFormTest, EntriesRunToTheNextExpectedKey) {
  const std::vector<std::string_view> registration = {"push_token", "app_token", "platform"};
  const std::vector<std::string_view> reply = {"reply_text"};
  struct Case {
    const char* body;
    std::vector<std::string_view> keys;
    Entries expected;
  };
  const Case cases[] = {
      {"push_token=0001&app_token=A&platform=ios", registration,
       {{"push_token", "0001"}, {"app_token", "A"}, {"platform", "ios"}}},
      {"platform=ios&push_token=0001&app_token=A", registration,
       {{"push_token", "0001"}, {"app_token", "A"}, {"platform", "ios"}}},
      {"push_token=0001&platform=ios", registration, {{"push_token", "0001"}, {"platform", "ios"}}},
      {"app_token=a b&c=d&platform=ios", registration, {{"app_token", "a b&c=d"}, {"platform", "ios"}}},
      {"reply_text=Rock & Roll", reply, {{"reply_text", "Rock & Roll"}}},
      {"reply_text=a&reply_text=b", reply, {{"reply_text", "a&reply_text=b"}}},
      {"reply_text=x=y&", reply, {{"reply_text", "x=y&"}}},
      {"reply_text=", reply, {{"reply_text", ""}}},
      {"other=1&reply_text=Yes", reply, {{"reply_text", "Yes"}}},
      {"xreply_text=Yes", reply, {}},
      {"reply_text", reply, {}},
      {"", reply, {}},
      {"user_info={\n    name = A;\n}", {"user_info"}, {{"user_info", "{\n    name = A;\n}"}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body);
    EXPECT_EQ(parseSdkForm(c.body, c.keys), c.expected);
  }
}

}  // namespace
}  // namespace quorvia::devserver
