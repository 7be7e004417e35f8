// Hostile clients: endless bodies, a rival server, slow connections, other web pages and other
// local users get nothing out of the devserver, and it keeps serving.

#include <sys/stat.h>

#include <vector>

#include "DevServerFixture.h"
#include "PollStore.h"
#include "RawClient.h"

namespace quorvia::devserver::testing {
namespace {

using nlohmann::json;

TEST_F(DevServerTest, BodiesOverTheLimitAre413HoweverTheyAreFramed) {
  const std::string host = "Host: 127.0.0.1:" + std::to_string(port_) + "\r\n";
  const std::pair<const char*, std::string> cases[] = {
      {"chunked user info", "POST /me HTTP/1.1\r\n" + host},
      {"chunked registration", "POST /endpoints/ HTTP/1.1\r\n" + host},
      {"chunked body to an unknown path", "POST /nowhere HTTP/1.1\r\n" + host},
      {"chunked admin poll", "POST /admin/polls HTTP/1.1\r\n" + host +
                                 "Content-Type: application/json\r\n" + AdminGate::kHeader + ": " +
                                 kAdminToken + "\r\n"},
  };
  constexpr size_t kEndless = size_t{256} << 20;
  for (const auto& [name, head] : cases) {
    SCOPED_TRACE(name);
    EndlessBodyOutcome outcome =
        sendEndlessChunkedBody(port_, head + "Transfer-Encoding: chunked\r\n\r\n", kEndless);
    EXPECT_TRUE(outcome.answer.starts_with("HTTP/1.1 413 ")) << outcome.answer;
    // The server stops taking the body at the limit; the rest is at most what socket buffers
    // hold, nowhere near the whole body.
    EXPECT_LT(outcome.bytesSent, kEndless / 8);
  }
  EXPECT_EQ(adminGet("/admin/devices")["devices"], json::array());
}

TEST_F(DevServerTest, ASecondServerCannotTakeATakenPort) {
  DevServerOptions options;
  options.database = directory_ / "rival.sqlite3";
  std::string error;
  std::unique_ptr<DevServer> rival = DevServer::open(std::move(options), &error);
  ASSERT_TRUE(rival) << error;
  EXPECT_EQ(rival->bind("127.0.0.1", port_), -1);
}

TEST_F(DevServerTest, SlowClientsDoNotHoldUpOthers) {
  // Each sends half a request and then nothing; together they outnumber any small worker pool.
  std::vector<std::unique_ptr<RawConnection>> slow;
  for (int i = 0; i < 200; ++i) {
    slow.push_back(std::make_unique<RawConnection>(port_));
    ASSERT_TRUE(slow.back()->send(
        "GET /admin/polls HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port_) + "\r\nX-Slow: "));
  }
  httplib::Client normal = client();
  normal.set_read_timeout(3);
  httplib::Result result = normal.Get("/admin/polls");
  ASSERT_TRUE(result) << httplib::to_string(result.error());
  EXPECT_EQ(result->status, 200);
}

TEST_F(DevServerTest, AdminWritesOnlyComeAsJsonFromThePageItself) {
  const std::string self = "127.0.0.1:" + std::to_string(port_);
  const std::string body = R"({"app_token": "A", "question": "Q", "options": [{"text": "Y"}]})";
  struct Case {
    const char* name;
    std::string host;
    std::optional<std::string> origin;
    std::string contentType;
    int status;
  };
  const Case cases[] = {
      {"a form post from another page", self, "http://evil.example", "text/plain", 415},
      {"JSON from another page", self, "http://evil.example", "application/json", 403},
      {"JSON from another port", self, "http://127.0.0.1:1", "application/json", 403},
      {"a rebound host name", "evil.example:" + std::to_string(port_), std::nullopt,
       "application/json", 403},
      {"no content type", self, std::nullopt, "", 415},
      {"a script on this machine", self, std::nullopt, "application/json", 201},
      {"the dashboard itself", self, "http://" + self, "application/json; charset=utf-8", 201},
      {"by the name localhost", "localhost:" + std::to_string(port_), std::nullopt,
       "application/json", 201},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    httplib::Request request;
    request.method = "POST";
    request.path = "/admin/polls";
    request.body = body;
    request.set_header("Host", c.host);
    if (c.origin) request.set_header("Origin", *c.origin);
    if (!c.contentType.empty()) request.set_header("Content-Type", c.contentType);
    httplib::Result result = client().send(request);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, c.status) << result->body;
  }
  EXPECT_EQ(adminGet("/admin/polls")["polls"].size(), 3u);
}

TEST(DevServerFiles, DatabaseAndJournalAreTheOwnersOnly) {
  namespace fs = std::filesystem;
  const fs::path root = fs::temp_directory_path() / ("devserver-files-" + std::to_string(getpid()));
  const fs::path nested = root / "new" / "dir";
  const fs::path older = root / "older.sqlite3";
  fs::create_directories(root);
  fs::permissions(root, fs::perms::owner_all);
  { std::ofstream(older.string()) << ""; }
  fs::permissions(older, fs::perms(0644));
  for (const fs::path& database : {nested / "devserver.sqlite3", older}) {
    SCOPED_TRACE(database.string());
    std::string error;
    std::unique_ptr<PollStore> store = PollStore::open(database, &error);
    ASSERT_TRUE(store) << error;
    ASSERT_TRUE(store->createPoll("A", "Q", {PollOption{"Y", std::nullopt}}));
    for (const std::string suffix : {"", "-wal", "-shm"}) {
      struct stat info {};
      ASSERT_EQ(stat((database.string() + suffix).c_str(), &info), 0) << suffix;
      EXPECT_EQ(info.st_mode & 0777, 0600u) << suffix;
    }
  }
  for (const fs::path& created : {root / "new", nested}) {
    struct stat info {};
    ASSERT_EQ(stat(created.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u) << created;
  }
  fs::remove_all(root);
}

}  // namespace
}  // namespace quorvia::devserver::testing
