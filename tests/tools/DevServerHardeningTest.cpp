// Hostile clients: endless or truncated bodies, a rival server, slow connections and other local
// users get nothing out of the devserver, and it keeps serving.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <fstream>
#include <string_view>

#include "DevServerFixture.h"

namespace quorvia::devserver::testing {
namespace {

// A loopback connection speaking HTTP by hand, for requests no well-behaved client library
// sends: stalled headers, bodies that end early or never end. Every wait is bounded.
using Clock = std::chrono::steady_clock;

class RawConnection final {
 public:
  explicit RawConnection(int port) {
    sockaddr_in address{AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
  }
  ~RawConnection() { close(fd_); }
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  // Sends all of `bytes`; then closes the sending side when `end`, as a client that died
  // mid-request would.
  bool send(const std::string& bytes, bool end = false) {
    bool sent =
        ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    if (end) shutdown(fd_, SHUT_WR);
    return sent;
  }

  // What the server sent up to the end of its first response's headers, or up to its closing
  // the connection (maybe nothing); nullopt when neither happened before `deadline`.
  std::optional<std::string> receive(Clock::time_point deadline) {
    std::string answer;
    while (answer.find("\r\n\r\n") == std::string::npos) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      pollfd fds{fd_, POLLIN, 0};
      char buffer[4096];
      if (left.count() <= 0 || poll(&fds, 1, static_cast<int>(left.count())) <= 0) return {};
      ssize_t n = recv(fd_, buffer, sizeof buffer, 0);
      if (n <= 0) break;
      answer.append(buffer, static_cast<size_t>(n));
    }
    return answer;
  }

  // Everything the server sends until it closes the connection; nullopt when it has not closed
  // it by `deadline`.
  std::optional<std::string> receiveUntilClosed(Clock::time_point deadline) {
    std::string answer;
    for (;;) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      pollfd fds{fd_, POLLIN, 0};
      char buffer[4096];
      if (left.count() <= 0 || poll(&fds, 1, static_cast<int>(left.count())) <= 0) return {};
      ssize_t n = recv(fd_, buffer, sizeof buffer, 0);
      if (n <= 0) return answer;
      answer.append(buffer, static_cast<size_t>(n));
    }
  }

  // Sends `head` (announcing a chunked body, ending in a blank line), then 1 MiB chunks until
  // the server answers or closes, or `limit` bytes went out. Returns the body bytes sent.
  size_t sendEndlessChunkedBody(const std::string& head, size_t limit) {
    const std::string chunk = "100000\r\n" + std::string(size_t{1} << 20, 'x') + "\r\n";
    if (!send(head)) return 0;
    for (size_t sent = 0;;) {
      pollfd fds{fd_, POLLIN | POLLOUT, 0};
      if (sent >= limit || poll(&fds, 1, 20'000) <= 0 || (fds.revents & ~POLLOUT)) return sent;
      size_t offset = sent % chunk.size();
      ssize_t n =
          ::send(fd_, chunk.data() + offset, chunk.size() - offset, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n < 0 && errno == EAGAIN) continue;
      if (n <= 0) return sent;
      sent += static_cast<size_t>(n);
    }
  }

 private:
  int fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

constexpr auto kBound = std::chrono::seconds(20);
// For answers due at once: generous for a loaded machine, far below the request deadlines the
// tests below set, which an answer that waited on them would need.
constexpr auto kAtOnce = std::chrono::seconds(5);
constexpr auto kLongDeadline = std::chrono::minutes(2);

size_t count(std::string_view text, std::string_view part) {
  size_t found = 0;
  for (size_t at = text.find(part); at != std::string_view::npos; at = text.find(part, at + 1)) {
    ++found;
  }
  return found;
}

TEST_F(DevServerTest, OversizedTruncatedOrGarbledRequestsAreRefusedAndStoreNothing) {
  EXPECT_EQ(statusOf(sdk("/endpoints/", "", std::string(kMaxBody + 1, 'x'))), 413);
  const std::string http = " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port_) + "\r\n";
  const std::string chunked = "Transfer-Encoding: chunked\r\n\r\n";
  // A request, whether its body then goes on for ever (else the client stops sending after it)
  // and how the answer starts; "" means closed unanswered or answered with a client error, as
  // the server may get to its length check before or after it sees the close.
  const std::tuple<std::string, bool, std::string> cases[] = {
      {"POST /me" + http + chunked, true, "HTTP/1.1 413 "},
      {"POST /endpoints/" + http + chunked, true, "HTTP/1.1 413 "},
      {"POST /nowhere" + http + chunked, true, "HTTP/1.1 413 "},
      {"POST /admin/polls" + http + "Content-Type: application/json\r\n" + AdminGate::kHeader +
           ": " + kAdminToken + "\r\n" + chunked,
       true, "HTTP/1.1 413 "},
      {"POST /endpoints/" + http + "Content-Length: 100\r\n\r\npush_token=ab&app_", false, ""},
      {"POST /endpoints/" + http + "Content-Length: 99999999999\r\n\r\npush_token", false, ""},
      {"hello\r\n\r\n", false, "HTTP/1.1 400 Bad Request\r\n"},
  };
  constexpr size_t kEndless = size_t{256} << 20;
  for (const auto& [request, endless, start] : cases) {
    SCOPED_TRACE(request.substr(0, request.find('\r')));
    RawConnection connection(port_);
    // The server stops taking an endless body at the limit; what went out is at most what
    // socket buffers hold, nowhere near the whole body.
    EXPECT_TRUE(endless ? connection.sendEndlessChunkedBody(request, kEndless) < kEndless / 8
                        : connection.send(request, true));
    std::string answer = connection.receive(Clock::now() + kBound).value_or("no answer");
    EXPECT_TRUE(start.empty() ? answer.empty() || answer.starts_with("HTTP/1.1 4")
                              : answer.starts_with(start))
        << answer;
  }
  EXPECT_EQ(adminGet("/admin/devices")["devices"], json::array());
}

TEST_F(DevServerTest, ASecondServerCannotTakeATakenPort) {
  std::string error;
  std::unique_ptr<DevServer> rival =
      DevServer::open({.database = directory_ / "rival.sqlite3"}, &error);
  ASSERT_TRUE(rival) << error;
  EXPECT_EQ(rival->bind("127.0.0.1", port_), -1);
}

TEST_F(DevServerTest, SlowRequestsAreCutAtTheirDeadlineWithoutHoldingUpOthers) {
  limits_.requestDeadline = std::chrono::seconds(1);
  startServer();
  // Each sends half a request and then nothing; together they outnumber any small worker pool.
  std::deque<RawConnection> slow;
  for (int i = 0; i < 200; ++i) {
    ASSERT_TRUE(slow.emplace_back(port_).send("GET /admin/polls HTTP/1.1\r\nX-Slow: "));
  }
  // A normal request is still served at once, and each slow one is cut at its deadline.
  httplib::Client normal = client();
  normal.set_read_timeout(3);
  EXPECT_EQ(statusOf(normal.Get("/admin/polls")), 200);
  const auto deadline = Clock::now() + kBound;
  for (auto& connection : slow) ASSERT_TRUE(connection.receive(deadline)) << "still open";
}

TEST_F(DevServerTest, ConnectionsOverTheCapAreRefusedAtOnceAndAFreedWorkerServesTheNext) {
  limits_.maxConnections = 16;
  limits_.requestDeadline = kLongDeadline;  // the idle connections hold their workers throughout
  startServer();
  std::deque<RawConnection> idle;
  for (int i = 0; i < 200; ++i) idle.emplace_back(port_);
  RawConnection late(port_);
  ASSERT_TRUE(late.send("GET /admin/polls HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"));
  std::string refusal = late.receive(Clock::now() + kAtOnce).value_or("no answer");
  EXPECT_TRUE(refusal.starts_with("HTTP/1.1 503 ")) << refusal;
  // Each idle connection was refused or holds a worker, which it gives up when it hangs up.
  const auto deadline = Clock::now() + kBound;
  for (auto& connection : idle) {
    connection.send("", true);
    ASSERT_TRUE(connection.receiveUntilClosed(deadline)) << "still open";
  }
  EXPECT_EQ(statusOf(client().Get("/admin/polls")), 200);
}

TEST_F(DevServerTest, AnEventStreamWhoseClientLeftGivesItsPlaceUpAtOnce) {
  const std::string follow =
      "GET /admin/events HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port_) + "\r\n" +
      AdminGate::kHeader + ": " + kAdminToken + "\r\n\r\n";
  // How the server answers a new stream: admitted (200) or refused (503).
  auto answerTo = [&](RawConnection& connection) {
    EXPECT_TRUE(connection.send(follow));
    std::string answer = connection.receive(Clock::now() + kAtOnce).value_or("no answer");
    return answer.substr(0, answer.find("\r\n"));
  };
  std::deque<RawConnection> streams;
  for (int i = 0; i < 32; ++i) {  // the documented cap on open streams
    ASSERT_EQ(answerTo(streams.emplace_back(port_)), "HTTP/1.1 200 OK");
  }
  RawConnection refused(port_);
  EXPECT_EQ(answerTo(refused), "HTTP/1.1 503 Service Unavailable");
  streams.front().send("", true);
  EXPECT_TRUE(streams.front().receiveUntilClosed(Clock::now() + kAtOnce)) << "still streaming";
  RawConnection next(port_);
  EXPECT_EQ(answerTo(next), "HTTP/1.1 200 OK");
}

// RFC 9112 §6.3: a body's end is read from its headers in one way only, or the request is
// refused and its connection closed, so no byte after the headers is ever taken for a request.
TEST_F(DevServerTest, BodiesEndWhereTheirHeadersSayOrTheRequestIsRefusedAndTheConnectionClosed) {
  limits_.requestDeadline = kLongDeadline;  // an answer that waits for more bytes never comes
  startServer();
  const json poll = createPoll("A", "Q", json::array({{{"text", "Y"}}}));
  const std::string token = registerDevice("0001", "A");
  const std::string host = "Host: 127.0.0.1\r\n";
  const std::string smuggled = "POST " + replyPath(poll) + " HTTP/1.1\r\n" + host +
                               "Authorization: JWT " + token +
                               "\r\nContent-Length: 19\r\n\r\nreply_text=SMUGGLED";
  const std::string post = "POST /endpoints/ HTTP/1.1\r\n" + host;
  const std::string form = "Content-Type: application/x-www-form-urlencoded\r\n";
  const std::string longForm = "push_token=" + std::string(9000, 'f') + "&app_token=A";
  const std::string registration = "push_token=cc&app_token=A";
  // A request (sent whole, the connection left open) and how its one answer starts.
  const std::pair<std::string, std::string> cases[] = {
      {post + "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n" + smuggled,
       "HTTP/1.1 400 "},
      {post + "Transfer-Encoding: chunked, identity\r\n\r\n0\r\n\r\n" + smuggled, "HTTP/1.1 400 "},
      {post + "Transfer-Encoding: gzip, chunked\r\n\r\n0\r\n\r\n" + smuggled, "HTTP/1.1 501 "},
      {post + "Content-Length: 1\r\nContent-Length: 2\r\n\r\nx" + smuggled, "HTTP/1.1 400 "},
      {post + "Content-Length: 1, 2\r\n\r\nx" + smuggled, "HTTP/1.1 400 "},
      {post + "Content-Length: 1e6\r\n\r\nx" + smuggled, "HTTP/1.1 400 "},
      {post + "Content-Length : 1\r\n\r\nx" + smuggled, "HTTP/1.1 400 "},
      {"GET /apps/A/polls/ HTTP/1.1\r\n" + host +
           "Content-Length: " + std::to_string(smuggled.size()) + "\r\n\r\n" + smuggled,
       "HTTP/1.1 401 "},
      {post + "Content-Length: 99999999999\r\n\r\n", "HTTP/1.1 413 "},
      {post + form + "Content-Length: " + std::to_string(longForm.size()) + "\r\n\r\n" + longForm,
       "HTTP/1.1 413 "},
      {post + form + "Transfer-Encoding: chunked\r\n\r\n2400\r\n" + longForm.substr(0, 9216) +
           "\r\n0\r\n\r\n",
       "HTTP/1.1 413 "},
      // A request without either header has no body, and the same length twice is one length.
      {post + "Connection: close\r\n\r\n", "HTTP/1.1 400 "},
      {post + "Connection: close\r\nContent-Length: 25, 25\r\n\r\n" + registration,
       "HTTP/1.1 200 "},
  };
  for (const auto& [request, start] : cases) {
    SCOPED_TRACE(request.substr(0, 120));
    RawConnection connection(port_);
    ASSERT_TRUE(connection.send(request));
    std::string answer = connection.receiveUntilClosed(Clock::now() + kAtOnce).value_or("open");
    EXPECT_TRUE(answer.starts_with(start)) << answer;
    EXPECT_EQ(count(answer, "HTTP/1.1 "), 1u) << answer;
  }
  EXPECT_EQ(adminGet("/admin/polls/" + poll["id"].dump() + "/replies")["replies"], json::array());
}

TEST(DevServerFiles, DatabaseAndJournalAreTheOwnersOnly) {
  namespace fs = std::filesystem;
  auto mode = [](const fs::path& path) { return static_cast<int>(fs::status(path).permissions()); };
  const fs::path root = quorvia::testing::makeTempDirectory("devserver-files");
  const fs::path nested = root / "new" / "dir", older = root / "older.sqlite3";
  std::ofstream(older.string()) << "";
  fs::permissions(older, fs::perms(0644));
  for (const fs::path& database : {nested / "devserver.sqlite3", older}) {
    SCOPED_TRACE(database.string());
    std::string error;
    std::unique_ptr<PollStore> store = PollStore::open(database, &error);
    ASSERT_TRUE(store) << error;
    ASSERT_TRUE(store->createPoll("A", "Q", {PollOption{"Y", std::nullopt}}));
    for (const char* suffix : {"", "-wal", "-shm"}) {
      EXPECT_EQ(mode(database.string() + suffix), 0600) << suffix;
    }
  }
  EXPECT_EQ(mode(root / "new"), 0700);
  EXPECT_EQ(mode(nested), 0700);
  fs::remove_all(root);
}

}  // namespace
}  // namespace quorvia::devserver::testing
