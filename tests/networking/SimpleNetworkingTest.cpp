// SimpleNetworking on loopback: each operation's bytes, decoded answers, one error per failure.

#include <atomic>
#include <thread>
#include <tuple>

#include "networking/NetworkingTest.h"

namespace quorvia::testing {
namespace {

using platform::Value;
using Behaviour = LoopbackServer::Behaviour;
using Call = std::function<void(const std::string& url, SimpleNetworking::Returned)>;

class SimpleNetworkingTest : public NetworkingTest {};

const std::string kForm = "application/x-www-form-urlencoded";

TEST_F(SimpleNetworkingTest, EachOperationPutsItsOwnBytesOnTheWire) {
  struct Case {
    std::string name, path;
    Call call;
    std::string requestLine, body;
    std::optional<std::string> contentType;  // nullopt: no Content-Type header
  };
  const Value param = {{"a", 1},   {"n", nullptr}, {"s", "x y"},
                       {"f", 0.5}, {"t", true},    {"c", "&="}};
  const Value kv = {{"k", "v"}};
  const auto raw = [&kv](int code) -> Call {
    return [code, &kv](const std::string& url, SimpleNetworking::Returned r) {
      SimpleNetworking::shared().callNSURLSessionWithType(
          code, url, kv, false, 0, code == 7, "n", "png", std::nullopt, [r](auto data, auto error) {
            r(platform::parseJson(std::string(data->begin(), data->end())), error);
          });
    };
  };
  const std::string multipart =
      std::string("{\"\":\"\"}--uniqueNetworkingBoundary\r\n") + "--uniqueNetworkingBoundary\r\n" +
      "Content-Disposition: form-data; name=\"photo\"; filename=\"image.png\"\r\n" +
      "Content-Type: image/png\r\n\r\n" + std::string("\x89PNG\0\x01", 6) +
      "\r\n--uniqueNetworkingBoundary--\r\na=1";
  const Case cases[] = {
      {"cacheless GET drops params, escapes only spaces", "/a b/c?x=1",
       [&](auto& url, auto r) { SimpleNetworking::getJsonCachelessFromURL(url, param, r); },
       "GET /a%20b/c?x=1", ""},
      {"POST sends the params unescaped, without nulls, and no Content-Type", "/post",
       [&](auto& url, auto r) { SimpleNetworking::postToURL(url, param, r); }, "POST /post",
       "a=1&s=x y&f=0.5&t=1&c=&="},
      {"POST without params has an empty body", "/p",
       [](auto& url, auto r) { SimpleNetworking::postToURL(url, std::nullopt, r); }, "POST /p", ""},
      {"PUT is form-encoded", "/put",
       [&](auto& url, auto r) { SimpleNetworking::putToURL(url, kv, r); }, "PUT /put", "k=v",
       kForm},
      {"delete sends PUT", "/del",
       [&](auto& url, auto r) { SimpleNetworking::deleteFromURL(url, param, r); }, "PUT /del",
       "a=1&s=x y&f=0.5&t=1&c=&=", kForm},
      {"image POST is the multipart layout followed by the params", "/img",
       [](auto& url, auto r) {
         SimpleNetworking::postImageToURL(
             url, Value{{"a", "1"}}, platform::Bytes{0x89, 'P', 'N', 'G', 0, 1}, "photo", "png", r);
       },
       "POST /img", multipart, "multipart/form-data; boundary=uniqueNetworkingBoundary"},
      {"code 3 sends DELETE, form-encoded", "/d3", raw(3), "DELETE /d3", "k=v", kForm},
      {"an unknown code sends GET with the params as body", "/odd", raw(7), "GET /odd", "k=v"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    LoopbackServer server;
    const auto outcome = completed([&](auto r) { c.call(server.url(c.path), r); });
    EXPECT_EQ(outcome->calls, 1);
    EXPECT_EQ(outcome->result, (Value{{"ok", 1}}));
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method + " " + requests[0].target, c.requestLine);
    EXPECT_EQ(requests[0].body, c.body);
    EXPECT_EQ(requests[0].hasHeader("Content-Type"), c.contentType.has_value());
    EXPECT_EQ(requests[0].header("Content-Type"), c.contentType.value_or(""));
    EXPECT_FALSE(requests[0].hasHeader("Expect"));
  }
}

TEST_F(SimpleNetworkingTest, HeaderFieldsAreReplacedAndFormTypeOverridesThem) {
  LoopbackServer server;
  SimpleNetworking::setHeaderFieldsWithDictionary(
      Value{{"Authorization", "JWT abc"}, {"Content-Type", "text/plain"}, {"X-Number", 5}});
  completed([&](auto r) { SimpleNetworking::postToURL(server.url("/p"), Value{{"k", "v"}}, r); });
  completed([&](auto r) { SimpleNetworking::putToURL(server.url("/u"), Value{{"k", "v"}}, r); });
  SimpleNetworking::setHeaderFieldsWithDictionary(Value{{"Other", "1"}});
  completed([&](auto r) { SimpleNetworking::getJsonCachelessFromURL(server.url("/g"), {}, r); });

  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[0].header("Authorization"), "JWT abc");
  EXPECT_EQ(requests[0].header("Content-Type"), "text/plain");
  EXPECT_FALSE(requests[0].hasHeader("X-Number")) << "a value that is not text is not sent";
  EXPECT_EQ(requests[1].header("Content-Type"), kForm);
  EXPECT_EQ(requests[1].header("Authorization"), "JWT abc");
  EXPECT_FALSE(requests[2].hasHeader("Authorization")) << "the set is replaced, not merged";
  EXPECT_EQ(requests[2].header("Other"), "1");
}

TEST_F(SimpleNetworkingTest, HeaderFieldsReplacedWhileAnotherThreadStartsRequests) {
  LoopbackServer server;
  constexpr int kRequests = 40;
  std::atomic<int> completions{0};
  std::thread caller([&] {
    for (int i = 0; i < kRequests; ++i)
      SimpleNetworking::postToURL(server.url("/r"), Value{{"i", i}},
                                  [&](auto, auto) { completions.fetch_add(1); });
  });
  for (int i = 0; i < kRequests; ++i)
    SimpleNetworking::setHeaderFieldsWithDictionary(Value{{"X-Round", std::to_string(i)}});
  caller.join();
  ASSERT_TRUE(
      loop_->runUntil([&] { return completions.load() == kRequests; }, platform::seconds(30)));
  EXPECT_EQ(server.requestCount(), static_cast<std::size_t>(kRequests));
}

// Whatever the status, a body is decoded: a dictionary or array, or an image
// (its pixels here), else nil and no error.
TEST_F(SimpleNetworkingTest, AnswersDecodeToJsonImagesOrNilWhateverTheStatus) {
  struct Case {
    Reply reply;
    std::optional<Value> expected;
    bool tls = false, image = false;
  };
  const auto png = encodedImage("png", 1, 1);
  const Case cases[] = {
      {{500, "text/html", "<html><body>Internal Server Error</body></html>"}, std::nullopt},
      {{404, "application/json", "{\"detail\":\"missing\"}"}, Value{{"detail", "missing"}}},
      {{200, "application/json", "[1,2]"}, Value::array({1, 2})},
      {{200, "application/json", "3"}, std::nullopt},
      {{200, "application/json", ""}, std::nullopt},
      {{200, "application/json", "{\"cut\":"}, std::nullopt},
      // A self-signed certificate is accepted as offered.
      {{200, "application/json", "{\"tls\":true}"}, Value{{"tls", true}}, true},
      {{200, "image/png", std::string(png.begin(), png.end())},
       platform::dataValue({0x80, 0x80, 0x80, 0xff}),
       false,
       true},
      {{200, "image/png", "not an image"}, std::nullopt, false, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reply.body);
    LoopbackServer server(Behaviour::kAnswer, c.tls);
    server.setReply(c.reply);
    const auto outcome = completed([&](auto r) {
      if (!c.image) return SimpleNetworking::getJsonCachelessFromURL(server.url("/x"), {}, r);
      SimpleNetworking::getImageCachelessFromURL(server.url("/i.png"), {}, [r](auto image, auto e) {
        r(image ? std::optional(platform::dataValue(image->rgba)) : std::nullopt, e);
      });
    });
    EXPECT_EQ(outcome->calls, 1);
    EXPECT_FALSE(outcome->error) << outcome->error->description();
    EXPECT_EQ(outcome->result, c.expected);
  }
}

TEST_F(SimpleNetworkingTest, TransportFailuresGiveOneErrorEachOnTheMainQueue) {
  LoopbackServer refusing(Behaviour::kRefuse), reset(Behaviour::kResetMidBody),
      truncated(Behaviour::kTruncateBody), stalled(Behaviour::kStall);
  const std::tuple<std::string, std::int64_t, std::string> cases[] = {
      // url, code, text
      {refusing.url("/gone"), platform::NSURLErrorCannotConnectToHost,
       "Could not connect to the server."},
      {reset.url("/reset"), platform::NSURLErrorNetworkConnectionLost,
       "The network connection was lost."},
      {truncated.url("/short"), platform::NSURLErrorNetworkConnectionLost,
       "The network connection was lost."},
      {stalled.url("/slow"), platform::NSURLErrorTimedOut, "The request timed out."},
      {"http://127.0.0.1:1/still \"invalid\"", platform::NSURLErrorBadURL, "bad URL"},
      {"", platform::NSURLErrorBadURL, "bad URL"},
  };
  transport_->setSeconds(0.3);
  for (const auto& [url, code, text] : cases) {
    SCOPED_TRACE(url);
    const auto outcome =
        completed([&](auto r) { SimpleNetworking::getJsonCachelessFromURL(url, std::nullopt, r); });
    EXPECT_EQ(outcome->calls, 1);
    EXPECT_TRUE(outcome->onMainThread);
    EXPECT_FALSE(outcome->result);
    ASSERT_TRUE(outcome->error);
    EXPECT_EQ(outcome->error->domain, "NSURLErrorDomain");
    EXPECT_EQ(outcome->error->code, code);
    EXPECT_EQ(outcome->error->localizedDescription(), text);
  }
}

}  // namespace
}  // namespace quorvia::testing
