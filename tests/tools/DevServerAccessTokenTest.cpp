// Access tokens: what registration issues and which tokens the device calls accept.

#include "AccessToken.h"
#include "DevServerFixture.h"

namespace quorvia::devserver::testing {
namespace {

using nlohmann::json;

struct TokenParts {
  std::string header;
  std::string payload;
  std::string signature;
};

TokenParts split(const std::string& token) {
  size_t first = token.find('.');
  size_t second = token.find('.', first + 1);
  return {token.substr(0, first), token.substr(first + 1, second - first - 1),
          token.substr(second + 1)};
}

json decoded(const std::string& part) {
  std::optional<std::string> text = base64UrlDecode(part);
  return text ? json::parse(*text, nullptr, false) : json(json::value_t::discarded);
}

TEST_F(DevServerTest, RegistrationIssuesAnHs256TokenNamingTheDeviceAndApp) {
  std::string token = registerDevice("0001abff10", "A");
  TokenParts parts = split(token);
  EXPECT_EQ(decoded(parts.header), json::parse(R"({"alg": "HS256", "typ": "JWT"})"));
  json claims = decoded(parts.payload);
  EXPECT_EQ(claims["push_token"], "0001abff10");
  EXPECT_EQ(claims["app_token"], "A");
  EXPECT_EQ(claims["sub"], std::to_string(adminGet("/admin/devices")["devices"][0]["id"].get<int64_t>()));
  EXPECT_TRUE(claims["iat"].is_number_integer());
  // Signed with the configured secret, so the token verifies independently of the server.
  EXPECT_EQ(AccessToken(kSecret).verify(token), claims);
  EXPECT_FALSE(AccessToken("another secret").verify(token));
}

TEST_F(DevServerTest, DeviceCallsWithoutAValidAccessTokenAreRefusedAndChangeNothing) {
  int64_t pollId = createPoll("A", "Q?", json::array({{{"text", "Yes"}}}))["id"];
  std::string good = registerDevice("aa11", "A");
  TokenParts parts = split(good);
  json claims = decoded(parts.payload);
  json otherDevice = claims;
  otherDevice["push_token"] = "bb22";
  json missingDevice = claims;
  missingDevice["sub"] = "999";

  struct Case {
    const char* name;
    std::optional<std::string> authorization;
  };
  const Case cases[] = {
      {"no header", std::nullopt},
      {"another scheme", "Bearer " + good},
      {"empty token", "JWT "},
      {"not a token", "JWT garbage"},
      {"truncated", "JWT " + good.substr(0, good.size() / 2)},
      {"tampered payload", "JWT " + parts.header + "." + base64UrlEncode(otherDevice.dump()) +
                               "." + parts.signature},
      {"tampered signature",
       "JWT " + parts.header + "." + parts.payload + "." +
           (parts.signature.front() == 'A' ? "B" : "A") + parts.signature.substr(1)},
      {"signed with another secret", "JWT " + AccessToken("another secret").issue(claims)},
      {"unsigned", "JWT " + base64UrlEncode(R"({"alg":"none","typ":"JWT"})") + "." +
                       parts.payload + "."},
      {"device that does not exist", "JWT " + AccessToken(kSecret).issue(missingDevice)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    httplib::Headers headers;
    if (c.authorization) headers.emplace("Authorization", *c.authorization);
    httplib::Client http = client();
    httplib::Result results[] = {
        http.Get("/apps/A/polls/", headers),
        http.Post("/polls/" + std::to_string(pollId) + "/replies/", headers, "reply_text=Yes", ""),
        http.Post("/me", headers, "user_info={\n    name = A;\n}", ""),
    };
    for (const httplib::Result& result : results) {
      ASSERT_TRUE(result);
      EXPECT_EQ(result->status, 401);
      EXPECT_TRUE(bodyJson(result)["error"].is_string()) << result->body;
    }
  }
  EXPECT_EQ(adminGet("/admin/replies")["replies"], json::array());
  EXPECT_EQ(adminGet("/admin/devices")["devices"][0]["user_info"], nullptr);
  EXPECT_EQ(fetchedPollIds("A", good), std::vector<int64_t>{pollId});
}

TEST_F(DevServerTest, TokenOfOneAppDoesNotReachAnotherAppsPolls) {
  int64_t pollId = createPoll("A", "Q?", json::array({{{"text", "Yes"}}}))["id"];
  std::string tokenB = registerDevice("aa11", "B");
  httplib::Result fetched = sdkGet("/apps/A/polls/", tokenB);
  ASSERT_TRUE(fetched);
  EXPECT_EQ(fetched->status, 403);
  EXPECT_FALSE(bodyJson(fetched).contains("results"));
  httplib::Result replied =
      sdkPost("/polls/" + std::to_string(pollId) + "/replies/", "reply_text=Yes", tokenB);
  ASSERT_TRUE(replied);
  EXPECT_EQ(replied->status, 404);
  EXPECT_EQ(adminGet("/admin/replies")["replies"], json::array());
}

TEST_F(DevServerTest, GeneratedSigningSecretSurvivesARestart) {
  stopServer();
  startServer("");
  std::string token = registerDevice("aa11", "A");
  stopServer();
  startServer("");
  EXPECT_EQ(fetchedPollIds("A", token), std::vector<int64_t>{});
  stopServer();
  // An explicit secret replaces the stored one for this run, so earlier tokens stop working.
  startServer("explicit secret");
  httplib::Result refused = sdkGet("/apps/A/polls/", token);
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->status, 401);
}

}  // namespace
}  // namespace quorvia::devserver::testing
