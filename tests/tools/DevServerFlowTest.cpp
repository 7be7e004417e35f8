// The poll flow through the devserver as the SDK drives it: registration, fetch, reply, and
// what the admin API reports afterwards.

#include <algorithm>
#include <map>

#include "DevServerFixture.h"

namespace quorvia::devserver::testing {
namespace {

using nlohmann::json;

TEST_F(DevServerTest, PollIsOfferedUntilTheDeviceRepliesAndTheReplyIsRecorded) {
  json created = createPoll("A", "Tea or coffee? ☕",
                            json::array({{{"text", "Tea"}, {"link", "https://example.com/tea"}},
                                         {{"text", "Coffee"}}}));
  ASSERT_TRUE(created["id"].is_number_integer());
  int64_t pollId = created["id"];

  std::string token = registerDevice("0001abff10", "A");
  httplib::Result fetched = sdkGet("/apps/A/polls/", token);
  ASSERT_TRUE(fetched);
  EXPECT_EQ(fetched->status, 200);
  EXPECT_EQ(fetched->get_header_value("Content-Type"), "application/json");
  EXPECT_EQ(bodyJson(fetched),
            json::parse(R"({"results": [{"id": )" + std::to_string(pollId) +
                        R"(, "question": "Tea or coffee? ☕", "options": [
                  {"text": "Tea", "link": "https://example.com/tea"}, {"text": "Coffee"}]}]})"));

  httplib::Result replied =
      sdkPost("/polls/" + std::to_string(pollId) + "/replies/", "reply_text=Coffee", token);
  ASSERT_TRUE(replied);
  EXPECT_EQ(replied->status, 201) << replied->body;
  EXPECT_EQ(fetchedPollIds("A", token), std::vector<int64_t>{});

  // Another device of the same app has not answered yet.
  EXPECT_EQ(fetchedPollIds("A", registerDevice("ffee", "A")), std::vector<int64_t>{pollId});

  json replies = adminGet("/admin/polls/" + std::to_string(pollId) + "/replies")["replies"];
  ASSERT_EQ(replies.size(), 1u);
  EXPECT_EQ(replies[0]["reply_text"], "Coffee");
  EXPECT_EQ(replies[0]["poll_id"], pollId);
  EXPECT_EQ(replies[0]["device"]["push_token"], "0001abff10");
  EXPECT_EQ(replies[0]["device"]["app_token"], "A");
  EXPECT_EQ(replies[0]["device"]["platform"], "ios");
  EXPECT_TRUE(replies[0]["created_at"].get<std::string>().starts_with("20"));
  EXPECT_EQ(adminGet("/admin/replies"), adminGet("/admin/replies?poll_id=" + std::to_string(pollId)));
  EXPECT_EQ(adminGet("/admin/polls")["polls"][0]["reply_count"], 1);

  // A line is written after its response is sent; stopping the server waits for all of them.
  stopServer();
  std::vector<std::string> lines = requestLines();
  auto registration = std::find_if(lines.begin(), lines.end(), [](const std::string& line) {
    return line.starts_with("POST /endpoints/ 200 ");
  });
  ASSERT_NE(registration, lines.end());
  EXPECT_TRUE(registration->ends_with(" ms")) << *registration;
}

TEST_F(DevServerTest, FetchListsThePollsTheDeviceHasNotAnsweredOrDismissedOldestFirst) {
  std::vector<int64_t> ids;
  for (const char* question : {"First?", "Second?", "Third?", "Fourth?"}) {
    ids.push_back(createPoll("A", question, json::array({{{"text", "Yes"}}}))["id"]);
  }
  createPoll("B", "Another app's poll?", json::array({{{"text", "Yes"}}}));

  struct Case {
    const char* name;
    std::map<size_t, std::string> replies;  // index into ids -> reply text
    std::vector<size_t> offered;
  };
  const Case cases[] = {
      {"nothing answered", {}, {0, 1, 2, 3}},
      {"dismissed is hidden too", {{1, "Dismiss"}}, {0, 2, 3}},
      {"answered and dismissed", {{0, "Yes"}, {3, "Dismiss"}}, {1, 2}},
      {"everything answered", {{0, "Yes"}, {1, "No"}, {2, "Dismiss"}, {3, "👍"}}, {}},
  };
  int device = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string token = registerDevice("d" + std::to_string(++device), "A");
    for (const auto& [index, text] : c.replies) {
      httplib::Result result =
          sdkPost("/polls/" + std::to_string(ids[index]) + "/replies/", "reply_text=" + text, token);
      ASSERT_TRUE(result);
      EXPECT_EQ(result->status, 201) << result->body;
    }
    std::vector<int64_t> expected;
    for (size_t index : c.offered) expected.push_back(ids[index]);
    EXPECT_EQ(fetchedPollIds("A", token), expected);
  }
}

TEST_F(DevServerTest, EndpointsTakeTheBodiesAndPathsTheSdkSends) {
  int64_t pollId = createPoll("my app", "Q?", json::array({{{"text", "Yes"}}}))["id"];
  std::string pollPath = "/polls/" + std::to_string(pollId);

  // Entries may come in any order; the app token arrives decoded from the URL's "%20".
  httplib::Result registered =
      sdkPost("/endpoints", "platform=ios&app_token=my app&push_token=00ff");
  ASSERT_TRUE(registered);
  ASSERT_EQ(registered->status, 200) << registered->body;
  std::string token = bodyJson(registered)["access_token"];

  const std::string userInfo = "{\n    name = \"A & B\";\n    tags =     (\n        x\n    );\n}";
  struct Case {
    const char* name;
    const char* method;
    std::string path;
    std::string body;
    int status;
  };
  const Case cases[] = {
      {"user info as a dictionary description", "POST", "/me", "user_info=" + userInfo, 200},
      {"user info path with a slash", "POST", "/me/", "user_info=" + userInfo, 200},
      {"reply holding '&' and '='", "POST", pollPath + "/replies/", "reply_text=Rock & Roll = ok", 201},
      {"reply path without a slash", "POST", pollPath + "/replies", "reply_text=Yes", 201},
      {"reply not UTF-8", "POST", pollPath + "/replies/", "reply_text=\xc3", 201},
      {"reply to a poll without an id", "POST", "/polls/(null)/replies/", "reply_text=Yes", 404},
      {"reply to an unknown poll", "POST", "/polls/999/replies/", "reply_text=Yes", 404},
      {"reply without reply_text", "POST", pollPath + "/replies/", "", 400},
      {"fetch path without a slash", "GET", "/apps/my%20app/polls", "", 200},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    httplib::Result result = std::string(c.method) == "GET" ? sdkGet(c.path, token)
                                                            : sdkPost(c.path, c.body, token);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, c.status) << result->body;
    EXPECT_TRUE(bodyJson(result).is_object()) << result->body;
  }

  json devices = adminGet("/admin/devices")["devices"];
  ASSERT_EQ(devices.size(), 1u);
  EXPECT_EQ(devices[0]["app_token"], "my app");
  EXPECT_EQ(devices[0]["push_token"], "00ff");
  EXPECT_EQ(devices[0]["user_info"], userInfo);
  json replies = adminGet("/admin/replies")["replies"];
  ASSERT_EQ(replies.size(), 3u);
  EXPECT_EQ(replies[0]["reply_text"], "Rock & Roll = ok");
  EXPECT_EQ(replies[1]["reply_text"], "Yes");
  EXPECT_EQ(replies[2]["reply_text"], "\xef\xbf\xbd");  // stored as sent, listed as U+FFFD
}

TEST_F(DevServerTest, RegisteringAgainKeepsOneDeviceAndItsReplies) {
  int64_t pollId = createPoll("A", "Q?", json::array({{{"text", "Yes"}}}))["id"];
  std::string first = registerDevice("abcd", "A");
  ASSERT_EQ(sdkPost("/polls/" + std::to_string(pollId) + "/replies/", "reply_text=Yes", first)->status,
            201);
  std::string second = registerDevice("abcd", "A");
  EXPECT_EQ(fetchedPollIds("A", second), std::vector<int64_t>{});
  EXPECT_EQ(fetchedPollIds("A", first), std::vector<int64_t>{});
  EXPECT_EQ(adminGet("/admin/devices")["devices"].size(), 1u);
  // The same push token under another app is another device.
  EXPECT_EQ(fetchedPollIds("B", registerDevice("abcd", "B")), std::vector<int64_t>{});
  EXPECT_EQ(adminGet("/admin/devices?app_token=A")["devices"].size(), 1u);
  EXPECT_EQ(adminGet("/admin/devices")["devices"].size(), 2u);
}

}  // namespace
}  // namespace quorvia::devserver::testing
