// Pushing polls to devices through a real mosquitto broker: the exact payload bytes and topics
// that devices receive, what the push call answers, and a broker that is down.

#include "DevServerFixture.h"
#include "support/MosquittoBroker.h"
#include "PushSender.h"

namespace quorvia::devserver::testing {
namespace {

using nlohmann::json;
using quorvia::testing::Delivery;
using quorvia::testing::DeviceSubscriber;
using quorvia::testing::MosquittoBroker;

constexpr auto kBound = std::chrono::seconds(10);

class DevServerPushTest : public DevServerTest {
 protected:
  // Restarts the fixture's server with pushes going to `broker`.
  void useBroker(const std::string& url, std::chrono::milliseconds timeout = kBound) {
    stopServer();
    sender_ = std::make_unique<PushSender>(*BrokerAddress::parse(url), timeout);
    push_ = sender_.get();
    startServer();
  }
  void TearDown() override {
    DevServerTest::TearDown();
    sender_.reset();
  }

  httplib::Result pushPoll(const json& poll, const std::string& body) {
    return client().Post("/admin/polls/" + poll["id"].dump() + "/push", body, "application/json");
  }

  std::unique_ptr<PushSender> sender_;
};

TEST_F(DevServerPushTest, PushPublishesThePollToEachDeviceTopicOnceAcknowledged) {
  MosquittoBroker broker(directory_);
  std::string error;
  ASSERT_TRUE(broker.start(MosquittoBroker::freePort(), &error)) << error;
  DeviceSubscriber devices(broker.port());
  ASSERT_TRUE(devices.ready());
  useBroker(broker.url());

  json poll = createPoll("A", "Tea? ☕",
                         json::array({{{"text", "Yes"}, {"link", "https://t"}}, {{"text", "No"}}}));
  registerDevice("ab01", "A");
  registerDevice("CD02", "A");
  registerDevice("ef03", "B");
  const std::string dictionary =
      R"({"id":)" + poll["id"].dump() +
      R"(,"options":[{"link":"https://t","text":"Yes"},{"text":"No"}],"question":"Tea? ☕"})";
  struct Case {
    const char* name;
    std::string body;
    int status;
    std::vector<std::string> topics;  // in publishing order
    std::string payload;
  };
  const Case cases[] = {
      {"defaults: the question as alert, the poll's category, every device of the app",
       "{}",
       200,
       {"quorvia/devices/ab01", "quorvia/devices/cd02"},
       R"({"aps":{"alert":"Tea? ☕","category":"Yes.No"},"poll":)" + dictionary + "}"},
      {"alert, category and devices chosen",
       R"({"alert": "Quick one", "category": "thumbsup.thumbsdown", "devices": ["CD02"]})",
       200,
       {"quorvia/devices/cd02"},
       R"({"aps":{"alert":"Quick one","category":"thumbsup.thumbsdown"},"poll":)" + dictionary +
           "}"},
      {"a device of another app", R"({"devices": ["ef03"]})", 400, {}, ""},
      {"an unknown category", R"({"category": "Maybe.Never"})", 400, {}, ""},
      {"not JSON", "devices=ab01", 400, {}, ""},
  };
  size_t expected = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    httplib::Result result = pushPoll(poll, c.body);
    ASSERT_TRUE(result);
    ASSERT_EQ(result->status, c.status) << result->body;
    if (c.status != 200) continue;
    EXPECT_EQ(bodyJson(result), json({{"sent", c.topics.size()}, {"devices", c.topics.size()}}));
    std::vector<Delivery> received = devices.waitFor(expected + c.topics.size(), kBound);
    ASSERT_EQ(received.size(), expected + c.topics.size());
    for (size_t i = 0; i < c.topics.size(); ++i) {
      EXPECT_EQ(received[expected + i].topic, c.topics[i]);
      EXPECT_EQ(received[expected + i].payload, c.payload);
    }
    expected += c.topics.size();
  }
  EXPECT_EQ(pushPoll(json{{"id", 999}}, "{}")->status, 404);
}

TEST_F(DevServerPushTest, ABrokerThatIsDownGivesAnErrorAnswerNotAHang) {
  MosquittoBroker broker(directory_);
  std::string error;
  ASSERT_TRUE(broker.start(MosquittoBroker::freePort(), &error)) << error;
  const int port = broker.port();
  broker.stop();
  useBroker("mqtt://127.0.0.1:" + std::to_string(port), std::chrono::seconds(2));
  json poll = createPoll("A", "Q", json::array({{{"text", "Y"}}}));
  registerDevice("ab01", "A");
  httplib::Result result = pushPoll(poll, "{}");
  ASSERT_TRUE(result);
  EXPECT_EQ(result->status, 502) << result->body;
  EXPECT_EQ(bodyJson(result)["sent"], 0);
  EXPECT_NE(bodyJson(result)["error"].get<std::string>().find("127.0.0.1:" + std::to_string(port)),
            std::string::npos)
      << result->body;
}

}  // namespace
}  // namespace quorvia::devserver::testing
