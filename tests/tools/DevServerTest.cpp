// The devserver as the SDK and the dashboard use it, with the bodies and paths the SDK really
// sends and the ones it must not get away with; pushing goes through a real broker.

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <iterator>
#include <mutex>
#include <thread>

#include "AccessToken.h"
#include "DevServerFixture.h"
#include "PushSender.h"
#include "support/MosquittoBroker.h"

namespace quorvia::devserver::testing {
namespace {

TEST_F(DevServerTest, PollsAreOfferedOldestFirstUntilTheDeviceAnswersOrDismissesThem) {
  json first = createPoll("A", "Tea or coffee? ☕",
                          json::parse(R"([{"text": "Tea", "link": "https://t"}, {"text": "C"}])"));
  std::vector<int64_t> ids = {first["id"]};
  for (const char* app : {"A", "A", "B"})
    ids.push_back(createPoll(app, "Q", {{{"text", "Y"}}})["id"]);
  ids.pop_back();  // another app's poll is never offered
  std::string token = registerDevice("0001abff10", "A");
  httplib::Result fetched = sdk("/apps/A/polls/", token);
  EXPECT_EQ(fetched->get_header_value("Content-Type"), "application/json");
  EXPECT_EQ(bodyJson(fetched)["results"][0],
            json::parse(R"({"id": )" + first["id"].dump() + R"(, "question": "Tea or coffee? ☕",
                "options": [{"text": "Tea", "link": "https://t"}, {"text": "C"}]})"));
  EXPECT_EQ(fetchedPollIds("A", token), ids);

  EXPECT_EQ(statusOf(sdk(replyPath(first), token, "reply_text=C")), 201);
  EXPECT_EQ(statusOf(sdk(replyPath({{"id", ids[2]}}), token, "reply_text=Dismiss")), 201);
  EXPECT_EQ(fetchedPollIds("A", token), std::vector<int64_t>{ids[1]});
  // Registering again is the same device; another device has answered nothing.
  EXPECT_EQ(fetchedPollIds("A", registerDevice("0001abff10", "A")), std::vector<int64_t>{ids[1]});
  EXPECT_EQ(fetchedPollIds("A", registerDevice("ffee", "A")), ids);
  registerDevice("0001abff10", "B");  // another app's device of the same push token
  EXPECT_EQ(adminGet("/admin/devices?app_token=A")["devices"].size(), 2u);
  EXPECT_EQ(adminGet("/admin/devices")["devices"].size(), 3u);

  json reply = adminGet("/admin/polls/" + first["id"].dump() + "/replies")["replies"].at(0);
  EXPECT_EQ(reply["reply_text"], "C");
  EXPECT_EQ(reply["device"]["push_token"], "0001abff10");
  EXPECT_EQ(reply["device"]["platform"], "ios");
  EXPECT_TRUE(reply["created_at"].get<std::string>().starts_with("20"));
  EXPECT_EQ(adminGet("/admin/replies?poll_id=" + first["id"].dump())["replies"],
            json::array({reply}));
  // A line is written after its response is sent; stopping the server waits for all of them.
  stopServer();
  EXPECT_TRUE(std::any_of(lines_.begin(), lines_.end(), [](const std::string& line) {
    return line.starts_with("POST /endpoints/ 200 ") && line.ends_with(" ms");
  }));
}

TEST_F(DevServerTest, EndpointsTakeWhatTheSdkSendsAndRefuseTheRestWithJsonErrors) {
  const std::string replies = replyPath(createPoll("my app", "Q?", {{{"text", "Yes"}}}));
  // Entries may come in any order; the app token arrives decoded from the URL's "%20".
  const std::string token =
      bodyJson(sdk("/endpoints", "", "platform=ios&app_token=my app&push_token=00ff"))
          .at("access_token");
  const std::string userInfo = "{\n    name = \"A & B\";\n    tags =     (\n        x\n    );\n}";
  // A GET without a body, else a POST.
  const std::tuple<const char*, std::string, std::optional<std::string>, int> cases[] = {
      {"user info as a dictionary description", "/me/", "user_info=" + userInfo, 200},
      {"reply holding '&' and '='", replies, "reply_text=Rock & Roll = ok", 201},
      {"reply path without a slash", replies.substr(0, replies.size() - 1), "reply_text=Yes", 201},
      {"reply not UTF-8", replies, "reply_text=\xc3", 201},
      {"fetch path without a slash", "/apps/my%20app/polls", std::nullopt, 200},
      {"reply to a poll without an id", "/polls/(null)/replies/", "reply_text=Yes", 404},
      {"reply to an unknown poll", "/polls/999/replies/", "reply_text=Yes", 404},
      {"reply without reply_text", replies, "", 400},
      {"reply_text not at an entry's start", replies, "xreply_text=Yes", 400},
      {"user info without user_info", "/me", "name=A", 400},
      {"registration without push_token", "/endpoints/", "app_token=A&platform=ios", 400},
      {"push token not UTF-8", "/endpoints/", "push_token=\xff\xfe&app_token=A", 400},
      {"admin poll_id not a number", "/admin/replies?poll_id=1x", std::nullopt, 400},
      {"admin replies of an unknown poll", "/admin/polls/42/replies", std::nullopt, 404},
  };
  for (const auto& [name, path, body, status] : cases) {
    SCOPED_TRACE(name);
    httplib::Result result = sdk(path, token, body);
    EXPECT_EQ(statusOf(result), status);
    EXPECT_EQ(bodyJson(result).value("error", json()).is_string(), status >= 400);
  }
  json devices = adminGet("/admin/devices")["devices"];
  ASSERT_EQ(devices.size(), 1u);
  EXPECT_EQ(devices[0]["app_token"], "my app");
  EXPECT_EQ(devices[0]["push_token"], "00ff");
  EXPECT_EQ(devices[0]["user_info"], userInfo);
  json listed = adminGet("/admin/replies")["replies"], texts = json::array();
  for (const json& reply : listed) texts.push_back(reply["reply_text"]);
  // Stored as sent; listed with U+FFFD for what is not UTF-8.
  EXPECT_EQ(texts, json({"Rock & Roll = ok", "Yes", "\xef\xbf\xbd"}));
}

TEST_F(DevServerTest, TokensAreSignedWithAStoredSecretAndDeviceCallsRefuseAnyOther) {
  json poll = createPoll("A", "Q?", {{{"text", "Yes"}}});
  const std::string good = registerDevice("aa11", "A");
  const size_t dot1 = good.find('.'), dot2 = good.find('.', dot1 + 1);
  const std::string header = good.substr(0, dot1), payload = good.substr(dot1 + 1, dot2 - dot1 - 1);
  const std::string signature = good.substr(dot2 + 1);
  EXPECT_EQ(base64UrlDecode(header), R"({"alg":"HS256","typ":"JWT"})");
  json claims = json::parse(base64UrlDecode(payload).value_or(""), nullptr, false);
  EXPECT_EQ(claims["push_token"], "aa11");
  EXPECT_EQ(claims["app_token"], "A");
  // Signed with the configured secret, so the token verifies independently of the server.
  EXPECT_EQ(AccessToken(kSecret).verify(good), claims);
  // Tokens that verify but name no device as it is registered.
  auto signedAs = [&claims](const char* key, const char* value) {
    json forged = claims;
    forged[key] = value;
    return "JWT " + AccessToken(kSecret).issue(forged);
  };
  const std::pair<const char*, std::optional<std::string>> cases[] = {
      {"no header", std::nullopt},
      {"another scheme", "Bearer " + good},
      {"empty token", "JWT "},
      {"truncated", "JWT " + good.substr(0, good.size() / 2)},
      {"tampered signature", "JWT " + header + "." + payload + "." +
                                 (signature.front() == 'A' ? "B" : "A") + signature.substr(1)},
      {"signed with another secret", "JWT " + AccessToken("another secret").issue(claims)},
      {"unsigned", "JWT " + base64UrlEncode(R"({"alg":"none","typ":"JWT"})") + "." + payload + "."},
      {"a device that does not exist", signedAs("sub", "999")},
      {"another push token", signedAs("push_token", "bb22")},
      {"another app", signedAs("app_token", "B")},
  };
  for (const auto& [name, authorization] : cases) {
    SCOPED_TRACE(name);
    httplib::Headers headers;
    if (authorization) headers.emplace("Authorization", *authorization);
    httplib::Client http = client();
    for (const httplib::Result& result : {http.Get("/apps/A/polls/", headers),
                                          http.Post(replyPath(poll), headers, "reply_text=Yes", ""),
                                          http.Post("/me", headers, "user_info=x", "")}) {
      EXPECT_EQ(statusOf(result), 401);
      EXPECT_TRUE(bodyJson(result)["error"].is_string());
    }
  }
  // Another app's device reaches neither the app's list nor its poll.
  const std::string otherApp = registerDevice("aa11", "B");
  EXPECT_EQ(statusOf(sdk("/apps/A/polls/", otherApp)), 403);
  EXPECT_EQ(statusOf(sdk(replyPath(poll), otherApp, "reply_text=Yes")), 404);
  EXPECT_EQ(adminGet("/admin/replies")["replies"], json::array());
  EXPECT_EQ(adminGet("/admin/devices?app=A")["devices"][0]["user_info"], nullptr);
  EXPECT_EQ(fetchedPollIds("A", good), std::vector<int64_t>{poll["id"]});
  // A generated secret is stored and survives a restart; an explicit one replaces it for the
  // run, so the tokens it signed stop working.
  startServer("");
  const std::string stored = registerDevice("aa11", "A");
  startServer("");
  EXPECT_EQ(fetchedPollIds("A", stored), std::vector<int64_t>{poll["id"]});
  startServer("explicit secret");
  EXPECT_EQ(statusOf(sdk("/apps/A/polls/", stored)), 401);
}

TEST_F(DevServerTest, DashboardAndAdminApiNeedTheAdminTokenAndTheSdkEndpointsDoNot) {
  const std::string token = kAdminToken, cookie = std::string(AdminGate::kCookie) + "=" + token;
  const std::tuple<std::string, httplib::Headers, int> cases[] = {
      {"/", {}, 401},
      {"/?token=" + token, {}, 200},  // the URL the server prints
      {"/dashboard/dashboard.js", {}, 401},
      {"/admin/events", {}, 401},
      {"/admin/polls", {{AdminGate::kHeader, token + "x"}}, 401},
      {"/admin/polls", {{AdminGate::kHeader, token}}, 200},
      {"/admin/devices", {{"Authorization", "Bearer " + token}}, 200},
      {"/admin/devices", {{"Cookie", "x=1; " + cookie}}, 200},
      {"/apps/A/polls/", {}, 401},  // the device's own check answers
  };
  for (const auto& [path, headers, status] : cases) {
    SCOPED_TRACE(path + (headers.empty() ? "" : " with " + headers.begin()->first));
    EXPECT_EQ(statusOf(client(false).Get(path, headers)), status);
  }
  httplib::Result page = client(false).Get("/?token=" + token);
  ASSERT_TRUE(page);
  EXPECT_TRUE(page->get_header_value("Content-Type").starts_with("text/html"));
  EXPECT_NE(page->body.find("/dashboard/dashboard.js"), std::string::npos);
  EXPECT_EQ(page->get_header_value("Set-Cookie"), cookie + "; Path=/; HttpOnly; SameSite=Strict");
}

TEST_F(DevServerTest, AdminPollsAreTakenOnlyWellFormedAndAsJsonFromThePageItself) {
  const std::string self = "127.0.0.1:" + std::to_string(port_), type = "application/json";
  auto with = [](const std::string& rest) {
    return R"({"app_token": "A", "question": "Q", )" + rest + "}";
  };
  const std::string poll = with(R"("options": [{"text": "Y"}])");
  // Who sends it (Host, Origin and Content-Type headers), what it sends, and the answer.
  const std::tuple<const char*, std::string, std::string, std::string, std::string, int> cases[] = {
      {"a form post from another page", self, "http://evil.example", "text/plain", poll, 415},
      {"JSON from another page", self, "http://evil.example", type, poll, 403},
      {"JSON from another port", self, "http://127.0.0.1:1", type, poll, 403},
      {"a rebound host name", "evil.example:" + std::to_string(port_), "", type, poll, 403},
      {"no content type", self, "", "", poll, 415},
      {"a script on this machine", self, "", type, poll, 201},
      {"the dashboard itself", self, "http://" + self, type + "; charset=utf-8", poll, 201},
      {"by the name localhost", "localhost:" + std::to_string(port_), "", type, poll, 201},
      {"not JSON", self, "", type, "question=Q", 400},
      {"deeply nested", self, "", type, std::string(20000, '[') + std::string(20000, ']'), 400},
      {"invalid UTF-8", self, "", type, with("\"options\": [{\"text\": \"\xff\"}]"), 400},
      {"no app token", self, "", type, R"({"question": "Q", "options": [{"text": "Y"}]})", 400},
      {"no options", self, "", type, with(R"("options": [])"), 400},
      {"a link not text", self, "", type, with(R"("options": [{"text": "Y", "link": 3}])"), 400},
      {"odd category", self, "", type, with(R"("options": [{"text": "Y"}], "category": "M")"), 400},
  };
  for (const auto& [name, host, origin, contentType, body, status] : cases) {
    SCOPED_TRACE(name);
    httplib::Headers headers = {{"Host", host}};
    if (!origin.empty()) headers.emplace("Origin", origin);
    httplib::Result result = client().Post("/admin/polls", headers, body, contentType);
    EXPECT_EQ(statusOf(result), status);
    EXPECT_EQ(bodyJson(result).contains("error"), status != 201);
  }
  EXPECT_EQ(adminGet("/admin/polls")["polls"].size(), 3u);
  // A null link is as good as none.
  json created = createPoll("A", "Q", {{{"text", "Y"}, {"link", nullptr}}});
  EXPECT_EQ(created["options"], json::parse(R"([{"text": "Y"}])"));
}

TEST_F(DevServerTest, ResultsCountEachOptionApartAndDeletingTakesThePollWithItsReplies) {
  json kept = createPoll("A", "Kept", {{{"text", "Y"}}});
  json poll = createPoll("A", "Q", json::parse(R"([{"text": "Tea", "link": "https://t"},
                                                   {"text": "Coffee"}, {"text": "Water"}])"));
  int device = 0;
  for (const char* text : {"Tea", "Tea", "Coffee", "Dismiss", "Maybe"}) {
    std::string token = registerDevice("d" + std::to_string(++device), "A");
    ASSERT_EQ(statusOf(sdk(replyPath(poll), token, "reply_text=" + std::string(text))), 201);
  }
  ASSERT_EQ(statusOf(sdk(replyPath(kept), registerDevice("d1", "A"), "reply_text=Y")), 201);
  const std::string path = "/admin/polls/" + poll["id"].dump();
  json results = adminGet(path + "/results");
  EXPECT_EQ(results["poll"]["category"], "Yes.No");
  results.erase("poll");
  EXPECT_EQ(results, json::parse(R"({"dismissals": 1, "answers": 4, "total": 5, "options": [
      {"text": "Tea", "link": "https://t", "count": 2, "percent": 50.0},
      {"text": "Coffee", "count": 1, "percent": 25.0},
      {"text": "Water", "count": 0, "percent": 0.0}],
      "other": [{"text": "Maybe", "count": 1, "percent": 25.0}]})"));
  EXPECT_TRUE(adminGet("/admin/devices?app=A")["devices"].at(4)["last_seen_at"].is_string());
  EXPECT_EQ(adminGet("/admin/devices?app=B")["devices"], json::array());

  for (const auto& [target, status] :
       {std::pair{path, 200}, {path, 404}, {"/admin/polls/x", 400}, {"/admin/polls/999", 404}}) {
    SCOPED_TRACE(target);
    EXPECT_EQ(statusOf(client().Delete(target, std::string(), "application/json")), status);
  }
  EXPECT_EQ(adminGet("/admin/polls")["polls"].size(), 1u);
  EXPECT_EQ(adminGet("/admin/replies")["replies"].size(), 1u);
  EXPECT_EQ(statusOf(client().Get(path + "/results")), 404);
}

// The dashboard's event stream, read on a thread of its own until the server stops.
class EventLog {
 public:
  // `stopServer` ends the stream; it runs before the reader is joined.
  EventLog(httplib::Client client, std::function<void()> stopServer)
      : stopServer_(std::move(stopServer)), reader_([this, client = std::move(client)]() mutable {
          std::string text;
          client.Get("/admin/events", [&](const char* data, size_t length) {
            std::lock_guard lock(mutex_);
            connected_ = true;
            text.append(data, length);
            for (size_t at, end; (at = text.find("data: ")) != std::string::npos &&
                                 (end = text.find("\n\n", at)) != std::string::npos;) {
              events_.push_back(json::parse(text.substr(at + 6, end - at - 6)));
              text.erase(0, end + 2);
            }
            changed_.notify_all();
            return true;
          });
        }) {}
  ~EventLog() {
    stopServer_();
    reader_.join();
  }
  bool connected() {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return connected_; });
  }
  // The events of `type`, once there are `count` of them or 10 s have passed.
  std::vector<json> waitFor(const std::string& type, size_t count) {
    std::unique_lock lock(mutex_);
    std::vector<json> found;
    changed_.wait_for(lock, std::chrono::seconds(10), [&] {
      found.clear();
      std::copy_if(events_.begin(), events_.end(), std::back_inserter(found),
                   [&](const json& event) { return event["type"] == type; });
      return found.size() >= count;
    });
    return found;
  }

 private:
  std::function<void()> stopServer_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool connected_ = false;    // guarded by mutex_
  std::vector<json> events_;  // guarded by mutex_
  std::thread reader_;
};

// The dashboard's event stream carries, as they happen, every call the service receives from a
// device, each the device's last call from then on (registration included), and every reply; a
// refused call is no device's. An open stream does not keep the server from stopping.
TEST_F(DevServerTest, EventStreamCarriesEachDeviceCallAndReplyAsTheyArriveAndEndsAtStop) {
  json poll = createPoll("A", "Q", {{{"text", "Y"}}});
  EventLog events(client(), [this] { stopServer(); });
  ASSERT_TRUE(events.connected());
  const auto lastCall = [&] { return adminGet("/admin/devices")["devices"].at(0)["last_seen_at"]; };
  std::string token;
  // A call the device makes, and the device events it brings (user info stored is one more).
  const std::tuple<const char*, std::function<int()>, size_t> calls[] = {
      {"registration", [&] { return (token = registerDevice("d1", "A")).empty() ? 0 : 200; }, 1},
      {"user info", [&] { return statusOf(sdk("/me/", token, "user_info=x")); }, 2},
      {"reply", [&] { return statusOf(sdk(replyPath(poll), token, "reply_text=Y")); }, 1},
      {"fetch", [&] { return statusOf(sdk("/apps/A/polls/", token)); }, 1},
      {"registration again", [&] { return registerDevice("d1", "A").empty() ? 0 : 200; }, 1},
  };
  std::string previous;
  size_t expected = 0;
  for (const auto& [name, call, brings] : calls) {
    SCOPED_TRACE(name);
    EXPECT_LT(call(), 300);
    expected += brings;
    EXPECT_EQ(events.waitFor("device", expected).size(), expected);
    const json last = lastCall();
    ASSERT_TRUE(last.is_string());
    EXPECT_GE(last.get<std::string>(), previous);
    previous = last;
  }
  const std::vector<json> replies = events.waitFor("reply", 1);
  ASSERT_EQ(replies.size(), 1u);
  EXPECT_EQ(replies[0]["poll_id"], poll["id"]);
  EXPECT_EQ(replies[0]["reply"]["reply_text"], "Y");
  EXPECT_EQ(replies[0]["reply"]["device"]["push_token"], "d1");
  EXPECT_EQ(statusOf(sdk("/apps/A/polls/", "not-a-token")), 401);
  EXPECT_EQ(lastCall(), previous);
  stopServer();
  EXPECT_EQ(events.waitFor("device", 0).size(), expected) << "a refused call is no device's";
}

TEST_F(DevServerTest, PushPublishesThePollToEachDeviceTopicAndABrokerDownIsAnError) {
  quorvia::testing::MosquittoBroker broker(directory_);
  std::string error;
  ASSERT_TRUE(broker.start(quorvia::testing::MosquittoBroker::freePort(), &error)) << error;
  quorvia::testing::DeviceSubscriber devices(broker.port());
  ASSERT_TRUE(devices.ready());
  auto pushTo = [this](const std::string& url) {
    push_ = std::make_unique<PushSender>(*BrokerAddress::parse(url), std::chrono::seconds(10));
    startServer();
  };
  pushTo(broker.url());
  json poll = createPoll("A", "Tea? ☕", json::parse(R"([{"text": "Y", "link": "https://t"}])"));
  for (const char* device : {"ab01", "CD02"}) registerDevice(device, "A");
  registerDevice("ef03", "B");
  auto payload = [&poll](const std::string& alert, const std::string& category) {
    return R"({"aps":{"alert":")" + alert + R"(","category":")" + category + R"("},"poll":{"id":)" +
           poll["id"].dump() +
           R"(,"options":[{"link":"https://t","text":"Y"}],"question":"Tea? ☕"}})";
  };
  // A body, the answer, the topics published in order and the payload they carry.
  const std::tuple<std::string, int, std::vector<std::string>, std::string> cases[] = {
      {"{}", 200, {"ab01", "cd02"}, payload("Tea? ☕", "Yes.No")},
      {R"({"alert": "Hi", "category": "A.B", "devices": ["CD02"]})",
       200,
       {"cd02"},
       payload("Hi", "A.B")},
      {R"({"devices": ["ef03"]})", 400, {}, ""},  // another app's device
  };
  const std::string path = "/admin/polls/" + poll["id"].dump() + "/push";
  size_t expected = 0;
  for (const auto& [body, status, topics, sent] : cases) {
    SCOPED_TRACE(body);
    httplib::Result result = client().Post(path, body, "application/json");
    ASSERT_EQ(statusOf(result), status);
    if (status != 200) continue;
    EXPECT_EQ(bodyJson(result), json({{"sent", topics.size()}, {"devices", topics.size()}}));
    auto received = devices.waitFor(expected + topics.size(), std::chrono::seconds(10));
    ASSERT_EQ(received.size(), expected + topics.size());
    for (const std::string& topic : topics) {
      EXPECT_EQ(received[expected].topic, "quorvia/devices/" + topic);
      EXPECT_EQ(received[expected++].payload, sent);
    }
  }
  EXPECT_EQ(statusOf(client().Post("/admin/polls/999/push", "{}", "application/json")), 404);
  // With the broker gone the call answers an error naming it, instead of hanging.
  broker.stop();
  pushTo(broker.url());
  httplib::Result result = client().Post(path, "{}", "application/json");
  EXPECT_EQ(statusOf(result), 502);
  json down = bodyJson(result);
  EXPECT_EQ(down["sent"], 0);
  EXPECT_NE(down.value("error", "").find(broker.url().substr(7)), std::string::npos) << down;
}

}  // namespace
}  // namespace quorvia::devserver::testing
