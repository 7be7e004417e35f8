// The dashboard's side of the devserver: who may use it, what the tally says, deleting, the
// device list and the live event stream.

#include <future>

#include "DevServerFixture.h"

namespace quorvia::devserver::testing {
namespace {

using nlohmann::json;

TEST_F(DevServerTest, DashboardAndAdminApiNeedTheAdminTokenAndTheSdkEndpointsDoNot) {
  struct Case {
    const char* name;
    std::string path;
    httplib::Headers headers;
    int status;
  };
  const Case cases[] = {
      {"the page without a token", "/", {}, 401},
      {"the page with a wrong token", "/?token=guess", {}, 401},
      {"the page from the printed URL", std::string("/?token=") + kAdminToken, {}, 200},
      {"the script without a token", "/dashboard/dashboard.js", {}, 401},
      {"the admin API without a token", "/admin/polls", {}, 401},
      {"the admin API with the token in the header",
       "/admin/polls",
       {{AdminGate::kHeader, kAdminToken}},
       200},
      {"the admin API as a bearer",
       "/admin/devices",
       {{"Authorization", std::string("Bearer ") + kAdminToken}},
       200},
      {"the admin API with the dashboard's cookie",
       "/admin/devices",
       {{"Cookie", std::string("x=1; ") + AdminGate::kCookie + "=" + kAdminToken}},
       200},
      {"the event stream without a token", "/admin/events", {}, 401},
      {"an SDK endpoint", "/apps/A/polls/", {}, 401 /* the device's own JWT check */},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    httplib::Result result = plainClient().Get(c.path, c.headers);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, c.status) << result->body;
  }
  httplib::Result page = plainClient().Get(std::string("/?token=") + kAdminToken);
  ASSERT_TRUE(page);
  EXPECT_TRUE(page->get_header_value("Content-Type").starts_with("text/html"));
  EXPECT_NE(page->body.find("/dashboard/dashboard.js"), std::string::npos);
  EXPECT_EQ(
      page->get_header_value("Set-Cookie"),
      std::string(AdminGate::kCookie) + "=" + kAdminToken + "; Path=/; HttpOnly; SameSite=Strict");
  EXPECT_EQ(bodyJson(sdkGet("/apps/A/polls/", registerDevice("aa", "A")))["results"],
            json::array());
}

TEST_F(DevServerTest, ResultsCountEachOptionWithDismissalsAndOtherRepliesApart) {
  json poll = createPoll(
      "A", "Q",
      json::array(
          {{{"text", "Tea"}, {"link", "https://t"}}, {{"text", "Coffee"}}, {{"text", "Water"}}}));
  const std::string pollPath = "/polls/" + poll["id"].dump() + "/replies/";
  const std::pair<const char*, const char*> replies[] = {
      {"d1", "Tea"}, {"d2", "Tea"}, {"d3", "Coffee"}, {"d4", "Dismiss"}, {"d5", "Maybe"},
  };
  for (const auto& [device, text] : replies) {
    ASSERT_EQ(
        sdkPost(pollPath, std::string("reply_text=") + text, registerDevice(device, "A"))->status,
        201);
  }
  json results = adminGet("/admin/polls/" + poll["id"].dump() + "/results");
  EXPECT_EQ(results["options"], json::parse(R"([
      {"text": "Tea", "link": "https://t", "count": 2, "percent": 50.0},
      {"text": "Coffee", "count": 1, "percent": 25.0},
      {"text": "Water", "count": 0, "percent": 0.0}])"));
  EXPECT_EQ(results["other"], json::parse(R"([{"text": "Maybe", "count": 1, "percent": 25.0}])"));
  EXPECT_EQ(results["dismissals"], 1);
  EXPECT_EQ(results["answers"], 4);
  EXPECT_EQ(results["total"], 5);
  EXPECT_EQ(results["poll"]["category"], "Yes.No");

  json devices = adminGet("/admin/devices?app=A")["devices"];
  ASSERT_EQ(devices.size(), 5u);
  EXPECT_TRUE(devices[0]["last_seen_at"].is_string()) << devices[0];
  EXPECT_EQ(adminGet("/admin/devices?app=B")["devices"], json::array());
}

TEST_F(DevServerTest, DeletingAPollRemovesItWithItsRepliesAndOnlyIt) {
  json kept = createPoll("A", "Kept", json::array({{{"text", "Y"}}}));
  json gone = createPoll("A", "Gone", json::array({{{"text", "Y"}}}));
  std::string token = registerDevice("d1", "A");
  for (const json& poll : {kept, gone}) {
    ASSERT_EQ(sdkPost("/polls/" + poll["id"].dump() + "/replies/", "reply_text=Y", token)->status,
              201);
  }
  const std::string gonePath = "/admin/polls/" + gone["id"].dump();
  const std::pair<std::string, int> deletions[] = {
      {gonePath, 200}, {gonePath, 404}, {"/admin/polls/x", 400}, {"/admin/polls/999", 404}};
  for (const auto& [path, status] : deletions) {
    SCOPED_TRACE(path);
    httplib::Result result = client().Delete(path, std::string(), "application/json");
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, status) << result->body;
  }
  json polls = adminGet("/admin/polls")["polls"];
  ASSERT_EQ(polls.size(), 1u);
  EXPECT_EQ(polls[0]["question"], "Kept");
  EXPECT_EQ(adminGet("/admin/replies")["replies"].size(), 1u);
  EXPECT_EQ(client().Get(gonePath + "/results")->status, 404);
}

TEST_F(DevServerTest, EventStreamCarriesRepliesAsTheyArriveAndEndsAtStop) {
  json poll = createPoll("A", "Q", json::array({{{"text", "Y"}}}));
  std::string token = registerDevice("d1", "A");
  std::promise<void> connected;
  std::promise<std::string> firstReply;
  std::string received;
  bool answered = false;
  std::thread reader([&] {
    httplib::Client stream = client();
    stream.set_read_timeout(30);
    bool first = true;
    stream.Get("/admin/events", [&](const char* data, size_t length) {
      received.append(data, length);
      if (first) connected.set_value();
      first = false;
      if (!answered && received.find("\"type\":\"reply\"") != std::string::npos) {
        answered = true;
        firstReply.set_value(received);
      }
      return true;
    });
  });
  ASSERT_EQ(connected.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
  ASSERT_EQ(sdkPost("/polls/" + poll["id"].dump() + "/replies/", "reply_text=Y", token)->status,
            201);
  std::future<std::string> events = firstReply.get_future();
  ASSERT_EQ(events.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  std::string text = events.get();
  size_t data = text.find("data: {");
  ASSERT_NE(data, std::string::npos) << text;
  json event = json::parse(text.substr(data + 6, text.find("\n\n", data) - data - 6));
  EXPECT_EQ(event["poll_id"], poll["id"]);
  EXPECT_EQ(event["reply"]["reply_text"], "Y");
  EXPECT_EQ(event["reply"]["device"]["push_token"], "d1");
  // An open stream does not keep the server from stopping.
  stopServer();
  reader.join();
}

}  // namespace
}  // namespace quorvia::devserver::testing
