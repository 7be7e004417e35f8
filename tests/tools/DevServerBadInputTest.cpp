// Malformed, truncated, oversized and misdirected requests: a JSON error, nothing stored, and
// the server keeps serving.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "DevServerFixture.h"

namespace quorvia::devserver::testing {
namespace {

using nlohmann::json;

TEST_F(DevServerTest, MalformedAdminPollIsRefusedWith400AndStoresNothing) {
  const std::pair<const char*, std::string> cases[] = {
      {"not JSON", "question=Q"},
      {"truncated JSON", R"({"app_token": "A", "question": "Q", "options": [{"text": "Y)"},
      {"empty body", ""},
      {"an array", R"([{"app_token": "A"}])"},
      {"deeply nested", std::string(20000, '[') + std::string(20000, ']')},
      {"invalid UTF-8", "{\"app_token\": \"A\", \"question\": \"\xff\", \"options\": [{\"text\": \"Y\"}]}"},
      {"missing app_token", R"({"question": "Q", "options": [{"text": "Y"}]})"},
      {"empty app_token", R"({"app_token": "", "question": "Q", "options": [{"text": "Y"}]})"},
      {"question not a string", R"({"app_token": "A", "question": 7, "options": [{"text": "Y"}]})"},
      {"missing question", R"({"app_token": "A", "options": [{"text": "Y"}]})"},
      {"options not an array", R"({"app_token": "A", "question": "Q", "options": {"text": "Y"}})"},
      {"no options", R"({"app_token": "A", "question": "Q", "options": []})"},
      {"option not an object", R"({"app_token": "A", "question": "Q", "options": ["Y"]})"},
      {"option without text", R"({"app_token": "A", "question": "Q", "options": [{"link": "x"}]})"},
      {"link not a string",
       R"({"app_token": "A", "question": "Q", "options": [{"text": "Y"}, {"text": "N", "link": 3}]})"},
      {"unknown key", R"({"app_token": "A", "question": "Q", "options": [{"text": "Y"}], "x": 1})"},
      {"unknown option key",
       R"({"app_token": "A", "question": "Q", "options": [{"text": "Y", "url": "x"}]})"},
  };
  for (const auto& [name, body] : cases) {
    SCOPED_TRACE(name);
    httplib::Result result = client().Post("/admin/polls", body, "application/json");
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 400);
    EXPECT_TRUE(bodyJson(result)["error"].is_string()) << result->body;
  }
  EXPECT_EQ(adminGet("/admin/polls")["polls"], json::array());
  // A well-formed poll with a null link still goes in after all that.
  json created = createPoll("A", "Q", json::array({{{"text", "Y"}, {"link", nullptr}}}));
  EXPECT_EQ(created["options"], json::parse(R"([{"text": "Y"}])"));
}

TEST_F(DevServerTest, BadRequestsGetJsonErrorsAndTheServerCarriesOn) {
  std::string token = registerDevice("aa11", "A");
  struct Case {
    const char* name;
    const char* method;
    std::string path;
    std::string body;
    int status;
  };
  const Case cases[] = {
      {"unknown path", "GET", "/nowhere", "", 404},
      {"wrong method", "GET", "/endpoints/", "", 404},
      {"body over the limit", "POST", "/endpoints/", std::string(kMaxBody + 1, 'x'), 413},
      {"registration without push_token", "POST", "/endpoints/", "app_token=A&platform=ios", 400},
      {"registration without app_token", "POST", "/endpoints/", "push_token=bb&platform=ios", 400},
      {"registration with an empty body", "POST", "/endpoints/", "", 400},
      {"push token not UTF-8", "POST", "/endpoints/", "push_token=\xff\xfe&app_token=A", 400},
      {"user info without user_info", "POST", "/me", "name=A", 400},
      {"reply poll id not a number", "POST", "/polls/abc/replies/", "reply_text=Y", 404},
      {"admin poll_id not a number", "GET", "/admin/replies?poll_id=1x", "", 400},
      {"admin replies of an unknown poll", "GET", "/admin/polls/42/replies", "", 404},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    httplib::Result result = std::string(c.method) == "GET" ? sdkGet(c.path, token)
                                                            : sdkPost(c.path, c.body, token);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, c.status) << result->body;
    EXPECT_TRUE(bodyJson(result)["error"].is_string()) << result->body;
  }
  EXPECT_EQ(adminGet("/admin/devices")["devices"].size(), 1u);
  EXPECT_EQ(adminGet("/admin/devices")["devices"][0]["user_info"], nullptr);
  EXPECT_EQ(fetchedPollIds("A", token), std::vector<int64_t>{});
}

// True once `answer` holds a whole response: headers and as many body bytes as they announce.
bool responseComplete(const std::string& answer) {
  size_t headerEnd = answer.find("\r\n\r\n");
  if (headerEnd == std::string::npos) return false;
  size_t length = 0;
  if (size_t at = answer.find("Content-Length: "); at != std::string::npos && at < headerEnd) {
    length = std::stoul(answer.substr(at + 16));
  }
  return answer.size() >= headerEnd + 4 + length;
}

// Sends `request` on a raw connection and returns what comes back, up to the end of the first
// response or until the server closes the connection; `endOfInput` also closes the sending
// side, as a client that died mid-request would.
std::string exchangeRaw(int port, const std::string& request, bool endOfInput) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string answer;
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      send(fd, request.data(), request.size(), MSG_NOSIGNAL) ==
          static_cast<ssize_t>(request.size())) {
    if (endOfInput) shutdown(fd, SHUT_WR);
    char buffer[4096];
    for (ssize_t n; !responseComplete(answer) && (n = recv(fd, buffer, sizeof buffer, 0)) > 0;) {
      answer.append(buffer, static_cast<size_t>(n));
    }
  }
  close(fd);
  return answer;
}

TEST_F(DevServerTest, TruncatedOrGarbledRequestsAreRefusedAndStoreNothing) {
  // A body that ends before its announced length is refused and stores nothing.
  struct Case {
    const char* name;
    std::string request;
    bool endOfInput;
    std::string answerStart;
  };
  const Case cases[] = {
      {"body shorter than its length",
       "POST /endpoints/ HTTP/1.1\r\nHost: x\r\nContent-Length: 100\r\n\r\npush_token=ab&app_",
       true, ""},
      {"length beyond the limit",
       "POST /endpoints/ HTTP/1.1\r\nHost: x\r\nContent-Length: 99999999999\r\n\r\npush_token",
       true, ""},
      {"not HTTP", "hello\r\n\r\n", false, "HTTP/1.1 400 Bad Request\r\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string answer = exchangeRaw(port_, c.request, c.endOfInput);
    if (c.answerStart.empty()) {
      // Refused either way: closed unanswered, or answered with a client error
      // when the server gets to its length check before it sees the close.
      EXPECT_TRUE(answer.empty() || answer.starts_with("HTTP/1.1 4")) << answer;
    } else {
      EXPECT_TRUE(answer.starts_with(c.answerStart)) << answer;
    }
  }
  EXPECT_EQ(adminGet("/admin/devices")["devices"], json::array());
}

}  // namespace
}  // namespace quorvia::devserver::testing
