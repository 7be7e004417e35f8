#include <algorithm>
#include <fstream>

#include "platform/push/DeviceTokenFile.h"
#include "push/PushTest.h"

namespace quorvia::testing {
namespace {

using platform::Bytes;
using platform::Value;

Value numbered(int n) { return Value{{"aps", {{"alert", "Poll " + std::to_string(n)}}}, {"n", n}}; }

std::vector<int> numbersOf(const std::vector<Value>& payloads) {
  std::vector<int> numbers;
  for (const Value& payload : payloads) numbers.push_back(payload.value("n", -1));
  return numbers;
}

// The token is the data directory's: every instance and every registration
// call gets the one in the file, each set of handlers exactly once.
TEST_F(PushTest, TokenIsTheDataDirectorysAndDeliveredOncePerRegistration) {
  ASSERT_TRUE(startBroker());
  auto first = std::make_shared<Seen>();
  auto service = makeService();
  const Bytes token = registerAndWait(*service, first);
  std::ifstream file(appData() / platform::kDeviceTokenFileName, std::ios::binary);
  EXPECT_EQ(token, Bytes(std::istreambuf_iterator<char>(file), {}));

  auto replaced = std::make_shared<Seen>();
  EXPECT_EQ(registerAndWait(*service, replaced), token) << "a later call reports it again";
  service.reset();

  auto again = std::make_shared<Seen>();
  auto next = makeService();
  EXPECT_EQ(registerAndWait(*next, again), token) << "a new instance, the same device";
  next.reset();
  drain();
  EXPECT_EQ(first->tokens.size(), 1u);
  EXPECT_EQ(replaced->tokens.size(), 1u);
  EXPECT_EQ(again->tokens.size(), 1u);
  EXPECT_TRUE(first->errors.empty());
}

// The session outlives the client: what was pushed while the app was away
// arrives once each, in order. It outlives a broker restart too; QoS 1 lets
// the broker repeat a push whose acknowledgement the restart cut off, but
// nothing is lost.
TEST_F(PushTest, PushesOutliveTheClientAndTheBroker) {
  ASSERT_TRUE(startBroker());
  auto seen = std::make_shared<Seen>();
  auto service = makeService();
  const std::string topic = deviceTopic(registerAndWait(*service, seen));
  service.reset();
  auto publish = [&](int from, int to) {
    Publisher publisher(port_);
    ASSERT_TRUE(publisher.connected());
    for (int n = from; n < to; ++n) ASSERT_TRUE(publisher.publish(topic, numbered(n).dump()));
  };
  auto arrived = [&](int n) {
    return waitFor(
        [&] { return !seen->payloads.empty() && seen->payloads.back().value("n", -1) == n; });
  };
  publish(0, 100);
  service = makeService();
  service->registerForRemoteNotifications(recordInto(seen));
  ASSERT_TRUE(waitFor([&] { return seen->tokens.size() == 2; }));
  publish(100, 101);  // after the reconnect: it comes after every queued one
  ASSERT_TRUE(arrived(100));
  std::vector<int> expected(101);
  for (int n = 0; n <= 100; ++n) expected[static_cast<std::size_t>(n)] = n;
  EXPECT_EQ(numbersOf(seen->payloads), expected) << "none lost, none twice";
  EXPECT_EQ(seen->payloads.front(), numbered(0));

  broker_->stop();
  ASSERT_TRUE(startBroker());
  publish(101, 102);
  ASSERT_TRUE(arrived(101));
  const std::vector<int> numbers = numbersOf(seen->payloads);
  EXPECT_TRUE(std::all_of(numbers.begin() + 101, numbers.end() - 1, [](int n) { return n <= 100; }))
      << "only repeats of acknowledged-late pushes before the new one";
  EXPECT_EQ(seen->tokens.size(), 2u) << "a reconnect does not report the token again";
  EXPECT_TRUE(seen->errors.empty());
}

// A broker that is not there: one failure with the reason, retries, and the
// token once it is up. A URL that names no broker: one failure, no retries.
TEST_F(PushTest, RegistrationFailureSaysWhyAndRetries) {
  struct Case {
    const char* name;
    std::string url;
    std::int64_t code;
    std::string reason;
    bool brokerComesUp;
  };
  const Case cases[] = {
      {"nobody listening", brokerURL(), platform::kQuorviaPushErrorUnreachable,
       "cannot be reached: Connection refused", true},
      {"not an MQTT URL", "http://127.0.0.1:" + std::to_string(port_),
       platform::kQuorviaPushErrorBadBrokerURL, "is not valid", false},
      {"no host", "mqtt://:1883", platform::kQuorviaPushErrorBadBrokerURL, "is not valid", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto seen = std::make_shared<Seen>();
    auto service = platform::makeMqttPushService({c.url, appData()});
    service->registerForRemoteNotifications(recordInto(seen));
    ASSERT_TRUE(waitFor([&] { return !seen->errors.empty(); }));
    const platform::Error& error = seen->errors.front();
    EXPECT_EQ(error.domain, platform::kQuorviaPushErrorDomain);
    EXPECT_EQ(error.code, c.code);
    EXPECT_NE(error.localizedDescription().find(c.reason), std::string::npos)
        << error.localizedDescription();
    if (c.brokerComesUp) {
      ASSERT_TRUE(startBroker());
      EXPECT_TRUE(waitFor([&] { return !seen->tokens.empty(); }));
      broker_->stop();
    } else {
      auto later = std::make_shared<Seen>();
      service->registerForRemoteNotifications(recordInto(later));
      EXPECT_TRUE(waitFor([&] { return !later->errors.empty(); })) << "told to a later call too";
    }
    service.reset();
    drain();
    EXPECT_EQ(seen->errors.size(), 1u) << "reported once per registration";
  }
}

// Only JSON objects within the size limit reach the handler; everything else
// is logged with one line and the client carries on.
TEST_F(PushTest, OnlyJsonObjectsWithinTheLimitArrive) {
  ASSERT_TRUE(startBroker());
  auto seen = std::make_shared<Seen>();
  auto service = makeService();
  const std::string topic = deviceTopic(registerAndWait(*service, seen));
  Value large = {{"aps", {{"alert", "large"}}}, {"blob", std::string(1024 * 1024, 'x')}};
  const std::string tooDeep = std::string(600, '[') + std::string(600, ']');
  const std::string tooLarge =
      "{\"blob\":\"" + std::string(platform::kMaxPushPayloadBytes, 'y') + "\"}";
  struct Case {
    const char* name;
    std::string payload;
    bool arrives;
  };
  const Case cases[] = {
      {"not JSON", "hello", false},
      {"truncated", "{\"aps\":", false},
      {"an array", "[1,2]", false},
      {"a string", "\"text\"", false},
      {"a number", "42", false},
      {"empty", "", false},
      {"invalid UTF-8", "{\"a\":\"\xff\"}", false},
      {"nested too deep", tooDeep, false},
      {"over the size limit", tooLarge, false},
      {"1 MB object", large.dump(), true},
  };
  Publisher publisher(port_);
  ASSERT_TRUE(publisher.connected());
  std::vector<Value> expected;
  for (const Case& c : cases) {
    ASSERT_TRUE(publisher.publish(topic, c.payload)) << c.name;
    if (c.arrives) expected.push_back(*platform::parseJson(c.payload));
    ASSERT_TRUE(publisher.publish(topic, numbered(0).dump()));
    expected.push_back(numbered(0));
  }
  ASSERT_TRUE(waitFor([&] { return seen->payloads.size() >= expected.size(); }));
  EXPECT_EQ(seen->payloads, expected);
  int dropped = 0;
  for (const std::string& line : log_.lines())
    dropped += line.find("push dropped") != std::string::npos;
  EXPECT_EQ(dropped, 9);
}

}  // namespace
}  // namespace quorvia::testing
