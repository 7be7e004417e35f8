// SimpleNetworking against loopback servers: the bytes each operation puts on
// the wire, decoding of answers, and transport failures.

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <httplib.h>

#include <atomic>
#include <functional>
#include <thread>

#include "support/SelfSignedIdentity.h"
#include "networking/NetworkingTest.h"
#include "networking/RawHttpServer.h"
#include "platform/URLSession.h"

namespace quorvia::testing {
namespace {

using platform::Value;

class SimpleNetworkingTest : public NetworkingTest {};

struct WireCase {
  std::string name;
  std::function<void(const RawHttpServer&, SimpleNetworking::Returned)> call;
  std::string method;
  std::string target;
  std::string body;
  std::optional<std::string> contentType;  // nullopt: no Content-Type header
};

const std::string kMultipartBody = std::string("{\"\":\"\"}--uniqueNetworkingBoundary\r\n") +
                                   "--uniqueNetworkingBoundary\r\n" +
                                   "Content-Disposition: form-data; name=\"photo\"; "
                                   "filename=\"image.png\"\r\n" +
                                   "Content-Type: image/png\r\n\r\n" + std::string("\x89PNG\0\x01", 6) +
                                   "\r\n--uniqueNetworkingBoundary--\r\na=1";

TEST_F(SimpleNetworkingTest, EachOperationPutsItsOwnBytesOnTheWire) {
  const Value param = {{"a", 1}, {"n", nullptr}, {"s", "x y"}, {"f", 0.5}};
  const std::vector<WireCase> cases = {
      {"cacheless GET drops params, escapes only spaces",
       [&](const RawHttpServer& s, auto r) {
         SimpleNetworking::getJsonCachelessFromURL(s.url("/a b/c?x=1"), param, r);
       },
       "GET", "/a%20b/c?x=1", "", std::nullopt},
      {"POST sends the unescaped param string and no Content-Type",
       [&](const RawHttpServer& s, auto r) { SimpleNetworking::postToURL(s.url("/post"), param, r); },
       "POST", "/post", "a=1&s=x y&f=0.5", std::nullopt},
      {"POST without params has an empty body",
       [&](const RawHttpServer& s, auto r) { SimpleNetworking::postToURL(s.url("/p"), std::nullopt, r); },
       "POST", "/p", "", std::nullopt},
      {"PUT is form-encoded",
       [&](const RawHttpServer& s, auto r) { SimpleNetworking::putToURL(s.url("/put"), Value{{"k", "v"}}, r); },
       "PUT", "/put", "k=v", "application/x-www-form-urlencoded"},
      {"delete sends PUT",
       [&](const RawHttpServer& s, auto r) {
         SimpleNetworking::deleteFromURL(s.url("/del"), Value{{"k", "v"}, {"j", "w"}}, r);
       },
       "PUT", "/del", "k=v&j=w", "application/x-www-form-urlencoded"},
      {"image POST is the multipart layout followed by the params",
       [&](const RawHttpServer& s, auto r) {
         SimpleNetworking::postImageToURL(s.url("/img"), Value{{"a", "1"}},
                                          platform::Bytes{0x89, 'P', 'N', 'G', 0, 1}, "photo", "png", r);
       },
       "POST", "/img", kMultipartBody, "multipart/form-data; boundary=uniqueNetworkingBoundary"},
      {"code 3 sends DELETE, form-encoded",
       [&](const RawHttpServer& s, auto r) {
         SimpleNetworking::shared().callNSURLSessionWithType(
             3, s.url("/d3"), Value{{"k", "v"}}, false, 0, false, "", "", std::nullopt,
             [r](auto data, auto error) { r(platform::parseJson(std::string(data->begin(), data->end())), error); });
       },
       "DELETE", "/d3", "k=v", "application/x-www-form-urlencoded"},
      {"an unknown code sends GET with the params as body",
       [&](const RawHttpServer& s, auto r) {
         SimpleNetworking::shared().callNSURLSessionWithType(
             7, s.url("/odd"), Value{{"k", "v"}}, false, 0, true, "n", "png", std::nullopt,
             [r](auto data, auto error) { r(platform::parseJson(std::string(data->begin(), data->end())), error); });
       },
       "GET", "/odd", "k=v", std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    RawHttpServer server;
    auto outcome = std::make_shared<Outcome>();
    c.call(server, recordJson(outcome));
    ASSERT_TRUE(waitFor(outcome));
    drain();
    EXPECT_EQ(outcome->calls, 1);
    EXPECT_FALSE(outcome->error);
    EXPECT_EQ(outcome->result, (Value{{"ok", 1}}));
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, c.method);
    EXPECT_EQ(requests[0].target, c.target);
    EXPECT_EQ(requests[0].body, c.body);
    if (c.contentType) {
      EXPECT_EQ(requests[0].header("Content-Type"), *c.contentType);
    } else {
      EXPECT_FALSE(requests[0].hasHeader("Content-Type"));
    }
    EXPECT_FALSE(requests[0].hasHeader("Expect"));
  }
}

TEST_F(SimpleNetworkingTest, HeaderFieldsAreReplacedAndFormTypeOverridesThem) {
  RawHttpServer server;
  SimpleNetworking::setHeaderFieldsWithDictionary(
      Value{{"Authorization", "JWT abc"}, {"Content-Type", "text/plain"}, {"X-Number", 5}});
  auto post = std::make_shared<Outcome>();
  SimpleNetworking::postToURL(server.url("/p"), Value{{"k", "v"}}, recordJson(post));
  ASSERT_TRUE(waitFor(post));
  auto put = std::make_shared<Outcome>();
  SimpleNetworking::putToURL(server.url("/u"), Value{{"k", "v"}}, recordJson(put));
  ASSERT_TRUE(waitFor(put));
  SimpleNetworking::setHeaderFieldsWithDictionary(Value{{"Other", "1"}});
  auto get = std::make_shared<Outcome>();
  SimpleNetworking::getJsonCachelessFromURL(server.url("/g"), std::nullopt, recordJson(get));
  ASSERT_TRUE(waitFor(get));

  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[0].header("Authorization"), "JWT abc");
  EXPECT_EQ(requests[0].header("Content-Type"), "text/plain");
  EXPECT_FALSE(requests[0].hasHeader("X-Number"));
  EXPECT_EQ(requests[1].header("Content-Type"), "application/x-www-form-urlencoded");
  EXPECT_EQ(requests[1].header("Authorization"), "JWT abc");
  EXPECT_FALSE(requests[2].hasHeader("Authorization"));
  EXPECT_EQ(requests[2].header("Other"), "1");
}

TEST_F(SimpleNetworkingTest, ParamStringIsUnescapedAndSkipsNull) {
  const std::vector<std::pair<Value, std::string>> cases = {
      {Value::object(), ""},
      {Value{{"k", "x y"}}, "k=x y"},
      {Value{{"b", 2}, {"a", nullptr}, {"c", "&="}}, "b=2&c=&="},
      {Value{{"t", true}, {"d", 0.25}, {"arr", Value::array({1})}}, "t=1&d=0.25&arr=(\n    1\n)"},
      {Value::array({1, 2}), ""},
  };
  for (const auto& [param, expected] : cases) {
    EXPECT_EQ(SimpleNetworking::getParamInString(param), expected) << param.dump();
  }
  EXPECT_EQ(SimpleNetworking::getRESTfulTypeStringForType(0), "GET");
  EXPECT_EQ(SimpleNetworking::getRESTfulTypeStringForType(1), "POST");
  EXPECT_EQ(SimpleNetworking::getRESTfulTypeStringForType(2), "PUT");
  EXPECT_EQ(SimpleNetworking::getRESTfulTypeStringForType(3), "DELETE");
  EXPECT_EQ(SimpleNetworking::getRESTfulTypeStringForType(4), "GET");
  EXPECT_EQ(SimpleNetworking::getRESTfulTypeStringForType(-1), "GET");
}

TEST_F(SimpleNetworkingTest, AnswersDecodeToJsonOrNilWhateverTheStatus) {
  struct Case {
    int status;
    std::string contentType;
    std::string body;
    std::optional<Value> expected;
  };
  const std::vector<Case> cases = {
      {500, "text/html", "<html><body>Internal Server Error</body></html>", std::nullopt},
      {404, "application/json", "{\"detail\":\"missing\"}", Value{{"detail", "missing"}}},
      {200, "application/json", "[1,2]", Value::array({1, 2})},
      {200, "application/json", "3", std::nullopt},
      {200, "application/json", "\"text\"", std::nullopt},
      {200, "application/json", "", std::nullopt},
      {200, "application/json", "{\"cut\":", std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.body);
    RawHttpServer server;
    server.setAnswer(c.status, c.contentType, c.body);
    auto outcome = std::make_shared<Outcome>();
    SimpleNetworking::getJsonCachelessFromURL(server.url("/x"), std::nullopt, recordJson(outcome));
    ASSERT_TRUE(waitFor(outcome));
    drain();
    EXPECT_EQ(outcome->calls, 1);
    EXPECT_FALSE(outcome->error);
    EXPECT_EQ(outcome->result, c.expected);
  }
}

TEST_F(SimpleNetworkingTest, ImageGettersDecodeOrGiveNil) {
  // A 1x1 opaque red PNG.
  const unsigned char png[] = {
      0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a, 0x00, 0x00, 0x00, 0x0d, 0x49, 0x48, 0x44,
      0x52, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x01, 0x08, 0x02, 0x00, 0x00, 0x00, 0x90,
      0x77, 0x53, 0xde, 0x00, 0x00, 0x00, 0x0c, 0x49, 0x44, 0x41, 0x54, 0x08, 0xd7, 0x63, 0xf8,
      0xcf, 0xc0, 0x00, 0x00, 0x03, 0x01, 0x01, 0x00, 0x18, 0xdd, 0x8d, 0xb0, 0x00, 0x00, 0x00,
      0x00, 0x49, 0x45, 0x4e, 0x44, 0xae, 0x42, 0x60, 0x82};
  RawHttpServer server;
  server.setAnswer(200, "image/png", std::string(reinterpret_cast<const char*>(png), sizeof png));
  auto good = std::make_shared<Outcome>();
  SimpleNetworking::getImageCachelessFromURL(server.url("/i.png"), std::nullopt, recordImage(good));
  ASSERT_TRUE(waitFor(good));
  ASSERT_TRUE(good->image);
  EXPECT_EQ(good->image->width, 1);
  EXPECT_EQ(good->image->height, 1);
  EXPECT_EQ(good->image->rgba, (platform::Bytes{0xff, 0x00, 0x00, 0xff}));

  server.setAnswer(200, "image/png", "not an image");
  auto bad = std::make_shared<Outcome>();
  SimpleNetworking::getImageCachelessFromURL(server.url("/bad.png"), std::nullopt, recordImage(bad));
  ASSERT_TRUE(waitFor(bad));
  drain();
  EXPECT_EQ(bad->calls, 1);
  EXPECT_FALSE(bad->image);
  EXPECT_FALSE(bad->error);
}

TEST_F(SimpleNetworkingTest, TransportFailuresGiveOneErrorEach) {
  std::string refusedUrl;
  {
    RawHttpServer closed;
    refusedUrl = closed.url("/gone");
  }
  RawHttpServer reset(RawHttpServer::Mode::kResetMidBody);
  RawHttpServer truncated(RawHttpServer::Mode::kTruncatedBody);
  const std::vector<std::pair<std::string, std::int64_t>> cases = {
      {refusedUrl, platform::NSURLErrorCannotConnectToHost},
      {reset.url("/reset"), platform::NSURLErrorNetworkConnectionLost},
      {truncated.url("/short"), platform::NSURLErrorNetworkConnectionLost},
      {"http://127.0.0.1:1/still \"invalid\"", platform::NSURLErrorBadURL},
      {"", platform::NSURLErrorBadURL},
  };
  for (const auto& [url, code] : cases) {
    SCOPED_TRACE(url);
    auto outcome = std::make_shared<Outcome>();
    SimpleNetworking::getJsonCachelessFromURL(url, std::nullopt, recordJson(outcome));
    ASSERT_TRUE(waitFor(outcome));
    drain();
    EXPECT_EQ(outcome->calls, 1);
    EXPECT_FALSE(outcome->result);
    ASSERT_TRUE(outcome->error);
    EXPECT_EQ(outcome->error->domain, "NSURLErrorDomain");
    EXPECT_EQ(outcome->error->code, code);
    EXPECT_NE(outcome->error->localizedDescription().find(' '), std::string::npos);
  }
}

TEST_F(SimpleNetworkingTest, StalledServerTimesOutOnTheMainQueue) {
  RawHttpServer stalled(RawHttpServer::Mode::kStall);
  platform::URLSession session(platform::ServerTrustPolicy::kAcceptAny);
  auto request = platform::URLRequest::requestWithURL(platform::URLWithString(stalled.url("/slow")));
  EXPECT_EQ(request.timeoutInterval, 60.0);
  request.timeoutInterval = 0.3;
  int calls = 0;
  bool onMain = false;
  std::optional<platform::Error> error;
  session.dataTaskWithRequest(request, [&](auto data, auto response, auto e) {
    ++calls;
    onMain = loop_->isMainThread();
    error = e;
    EXPECT_FALSE(data);
    EXPECT_FALSE(response);
  });
  ASSERT_TRUE(loop_->runUntil([&] { return calls > 0; }, platform::seconds(20)));
  drain();
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(onMain);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, platform::NSURLErrorTimedOut);
  EXPECT_EQ(error->localizedDescription(), "The request timed out.");
}


TEST_F(SimpleNetworkingTest, SelfSignedServerIsAccepted) {
  SelfSignedIdentity identity;
  httplib::SSLServer server(identity.cert, identity.key);
  ASSERT_TRUE(server.is_valid());
  server.set_tcp_nodelay(true);
  server.Get("/secure", [](const httplib::Request&, httplib::Response& res) {
    res.set_content("{\"tls\":true}", "application/json");
  });
  const int port = server.bind_to_any_port("127.0.0.1");
  std::thread serving([&] { server.listen_after_bind(); });

  auto outcome = std::make_shared<Outcome>();
  SimpleNetworking::getJsonCachelessFromURL("https://127.0.0.1:" + std::to_string(port) + "/secure",
                                            std::nullopt, recordJson(outcome));
  const bool done = waitFor(outcome);
  server.stop();
  serving.join();
  ASSERT_TRUE(done);
  EXPECT_FALSE(outcome->error) << outcome->error->description();
  EXPECT_EQ(outcome->result, (Value{{"tls", true}}));
}

TEST_F(SimpleNetworkingTest, HeaderFieldsReplacedWhileAnotherThreadStartsRequests) {
  RawHttpServer server;
  constexpr int kRequests = 40;
  std::atomic<int> completed{0};
  std::thread caller([&] {
    for (int i = 0; i < kRequests; ++i) {
      SimpleNetworking::postToURL(server.url("/r"), Value{{"i", i}},
                                  [&](auto, auto) { completed.fetch_add(1); });
    }
  });
  for (int i = 0; i < kRequests; ++i) {
    SimpleNetworking::setHeaderFieldsWithDictionary(Value{{"X-Round", std::to_string(i)}});
  }
  caller.join();
  ASSERT_TRUE(loop_->runUntil([&] { return completed.load() == kRequests; }, platform::seconds(30)));
  EXPECT_EQ(server.requestCount(), static_cast<std::size_t>(kRequests));
}

}  // namespace
}  // namespace quorvia::testing
