// The desktop host in a real X window: Xvfb, a broker, the devserver and the host are started
// here; xdotool clicks where the host says the banner's rows are, and screenshots show the
// banner's pixels there.
#include <gtest/gtest.h>
#include <httplib.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <regex>

#include "support/ChildProcess.h"
#include "support/MosquittoBroker.h"
#include "support/PlatformTest.h"

namespace quorvia {
namespace {

constexpr const char* kAdminToken = "window-test-admin";
constexpr const char* kAppToken = "window-test-app";
constexpr int kScreenWidth = 375;
// What a program says on standard error belongs to the failure message too.
const testing::ChildProcessOptions kMerged{.errorsInOutput = true};

struct Box {
  double x = 0, y = 0, w = 0, h = 0;
};

// The boxes "x,y,w,h" of a line "frames banner=B rows=R;R;... [backdrop=a]" as the host prints
// it: the banner's first, then its rows'.
std::vector<Box> boxesOf(const std::string& line) {
  static const std::regex box(R"((-?[\d.]+),(-?[\d.]+),([\d.]+),([\d.]+))");
  std::vector<Box> boxes;
  if (line.rfind("frames banner=", 0) != 0) return boxes;
  for (std::sregex_iterator m(line.begin(), line.end(), box), end; m != end; ++m) {
    boxes.push_back(
        {std::stod((*m)[1]), std::stod((*m)[2]), std::stod((*m)[3]), std::stod((*m)[4])});
  }
  return boxes;
}

// Runs a short command on `display` (coreutils' timeout ends it after 30 s) and returns the
// first line it printed, or nothing when it failed.
std::optional<std::string> run(const std::string& display, const std::string& command) {
  FILE* out = ::popen(("DISPLAY=" + display + " timeout 30 " + command).c_str(), "r");
  if (!out) return std::nullopt;
  std::string text;
  for (int c; (c = std::fgetc(out)) != EOF;) text.push_back(static_cast<char>(c));
  if (::pclose(out) != 0) return std::nullopt;
  return text.substr(0, text.find('\n'));
}

// The X screen as R, G, B bytes. The X server may show a client's frame a little after the
// client presented it, so the screen is captured until two captures in a row agree.
std::string screenshot(const std::string& display, const std::filesystem::path& file) {
  std::string last;
  for (int i = 0; i < 10; ++i) {
    EXPECT_TRUE(run(display, "import -window root -depth 8 RGB:" + file.string()));
    std::ifstream in(file, std::ios::binary);
    std::string next((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (next == last) break;
    last = std::move(next);
  }
  return last;
}

std::array<int, 3> rgb(const std::string& shot, double x, double y) {
  const std::size_t at =
      (static_cast<std::size_t>(y) * kScreenWidth + static_cast<std::size_t>(x)) * 3;
  if (at + 3 > shot.size()) return {-1, -1, -1};
  return {static_cast<unsigned char>(shot[at]), static_cast<unsigned char>(shot[at + 1]),
          static_cast<unsigned char>(shot[at + 2])};
}

auto containing(const char* text) {
  return [text](const std::string& l) { return l.find(text) != std::string::npos; };
}

TEST(WindowedHostTest, ShowsTheFetchedPollAndSendsTheClickedOption) {
  const auto dir = testing::makeTempDirectory("quorvia-window");
  std::printf("working in %s\n", dir.c_str());

  // The X server picks a free display number and writes it once it is ready.
  testing::ChildProcess xvfb(
      {"Xvfb", "-displayfd", "1", "-screen", "0", "375x667x24", "-nolisten", "tcp"}, kMerged);
  const std::string number = xvfb.waitForLine([](const std::string& l) {
    return !l.empty() && l.find_first_not_of("0123456789") == std::string::npos;
  });
  ASSERT_FALSE(number.empty()) << "Xvfb (scripts/setup.sh installs it) did not start:\n"
                               << xvfb.output();
  const std::string display = ":" + number;

  testing::MosquittoBroker broker(dir / "broker");
  std::string brokerError;
  ASSERT_TRUE(broker.start(testing::MosquittoBroker::freePort(), &brokerError)) << brokerError;

  testing::ChildProcess server(
      {QUORVIA_DEVSERVER_BINARY, "--port", "0", "--db", (dir / "devserver.sqlite3").string(),
       "--admin-token", kAdminToken, "--broker", broker.url()},
      kMerged);
  constexpr std::string_view kListening = "listening on http://127.0.0.1:";
  const std::string listening =
      server.waitForLine([&](const std::string& l) { return l.rfind(kListening, 0) == 0; });
  ASSERT_FALSE(listening.empty()) << server.output();
  const int port = std::atoi(listening.c_str() + kListening.size());
  httplib::Client admin("127.0.0.1", port);
  admin.set_default_headers({{"X-Quorvia-Admin-Token", kAdminToken}});
  const nlohmann::json poll = {{"app_token", kAppToken},
                               {"question", "Tea or coffee?"},
                               {"options", {{{"text", "Yes"}}, {{"text", "No"}}}}};
  auto created = admin.Post("/admin/polls", poll.dump(), "application/json");
  ASSERT_TRUE(created && created->status == 201);
  const auto pollId = nlohmann::json::parse(created->body)["id"].get<int>();

  // SDL's software renderer has the X server draw each frame before the present returns, so
  // a screenshot after a printed frame shows it.
  testing::ChildProcess host(
      {"env", "DISPLAY=" + display, "SDL_VIDEODRIVER=x11", "SDL_RENDER_DRIVER=software",
       "QUORVIA_SERVICE_BASE_URL=http://127.0.0.1:" + std::to_string(port),
       "QUORVIA_PUSH_BROKER=" + broker.url(), "XDG_DATA_HOME=" + dir.string(),
       QUORVIA_DESKTOP_HOST_BINARY, "--print-frames", "--app-token", kAppToken, "--data-dir",
       (dir / "host").string()},
      kMerged);
  ASSERT_FALSE(host.waitForLine(containing("host: ready")).empty()) << host.output();
  // The device registers through the broker before a fetch can be answered.
  ASSERT_FALSE(host.waitForLine(containing("Successfully registered device push token.")).empty())
      << host.output();

  // The window gains focus: the app becomes active and fetches the poll. Whether or not the
  // window had focus from its mapping (which may have come before the device registered),
  // focusing the root window first and then the host's makes one activation that certainly
  // comes after the registration.
  const auto windowId = run(display, "xdotool search --sync --name 'Quorvia desktop host'");
  const auto rootId = run(display, "xdotool search --maxdepth 0 --name ''");
  ASSERT_TRUE(windowId && rootId);
  for (const std::string& target : {*rootId, *windowId}) {
    EXPECT_TRUE(run(display, "xdotool windowfocus --sync " + target));
  }

  const auto collapsed = boxesOf(host.waitForLine([](const std::string& l) {
    const auto boxes = boxesOf(l);
    return boxes.size() == 3 && boxes[0].y == 20;
  }));
  ASSERT_EQ(collapsed.size(), 3u) << host.output();
  EXPECT_EQ(collapsed[0].w, 375);
  constexpr std::size_t kScreenBytes = kScreenWidth * 667 * 3;
  const std::string before = screenshot(display, dir / "collapsed.rgb");
  ASSERT_EQ(before.size(), kScreenBytes);
  const Box question = collapsed[2];
  EXPECT_EQ(rgb(before, question.x + 20, question.y + 4), (std::array<int, 3>{255, 255, 255}));
  // Beside the card the SDK's layer is transparent: the host's own screen shows.
  EXPECT_EQ(rgb(before, 4, question.y + question.h / 2), (std::array<int, 3>{241, 243, 247}));
  EXPECT_EQ(rgb(before, 187, 10), (std::array<int, 3>{49, 92, 191}));  // the host's title bar

  const auto click = [&](const Box& box) {
    EXPECT_TRUE(run(display, "xdotool mousemove --sync " + std::to_string(box.x + box.w / 2) + " " +
                                 std::to_string(box.y + box.h / 2) + " click 1"));
  };
  click(question);
  const auto expanded = boxesOf(host.waitForLine([](const std::string& l) {
    return boxesOf(l).size() == 5 && l.find(" backdrop=1.000") != std::string::npos;
  }));
  ASSERT_EQ(expanded.size(), 5u) << host.output();
  const std::string after = screenshot(display, dir / "expanded.rgb");
  ASSERT_EQ(after.size(), kScreenBytes);
  EXPECT_EQ(rgb(after, expanded[3].x + 20, expanded[3].y + 4), (std::array<int, 3>{255, 255, 255}));
  // The backdrop's dark tint (alpha 0.62 at full fade) over the host's screen below the card.
  EXPECT_LT(rgb(after, 187, 620)[0], rgb(before, 187, 620)[0] * 0.55);

  click(expanded[3]);  // "Yes"
  ASSERT_FALSE(host.waitForLine(containing("QuorviaSDK: Successfuly sent reply: Yes")).empty())
      << host.output();
  auto replies = admin.Get("/admin/polls/" + std::to_string(pollId) + "/replies");
  ASSERT_TRUE(replies && replies->status == 200);
  const auto list = nlohmann::json::parse(replies->body)["replies"];
  ASSERT_EQ(list.size(), 1u) << replies->body;
  EXPECT_EQ(list[0]["reply_text"], "Yes");
  // A failed run keeps its screenshots and logs for a look.
  if (!::testing::Test::HasFailure()) std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace quorvia
