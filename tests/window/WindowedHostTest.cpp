// Each example host in a real X window: Xvfb, a private session bus with a notification service,
// a broker, the devserver and the host are started here. A poll pushed through the broker slides
// in, xdotool clicks the card and an option where the host says they are, and the devserver
// records the reply; with the window in the background the next push is a desktop notification
// whose button posts the reply.
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
constexpr int kWindowHeight = 667;
// Below the window a strip of the root window: with the pointer there, focusing the root takes
// the focus from the window (X gives a root-focused keyboard to the window under the pointer).
constexpr int kScreenHeight = kWindowHeight + 60;
// What a program says on standard error belongs to the failure message too.
const testing::ChildProcessOptions kMerged{.errorsInOutput = true};

struct Host {
  const char* name;
  const char* binary;
  const char* title;                     // of its window, for xdotool
  std::vector<std::string> environment;  // what its toolkit needs under Xvfb
};

std::ostream& operator<<(std::ostream& out, const Host& host) { return out << host.name; }

struct Element {
  std::string role, name;
  double x = 0, y = 0, w = 0, h = 0;
  bool showing = false;
};

// The elements of a line "host: elements; ROLE X,Y,W,H[ hidden] NAME; ..." as the hosts say it.
std::vector<Element> elementsOf(const std::string& line) {
  static const std::regex element(
      R"(; (\w+) (-?[\d.]+),(-?[\d.]+),([\d.]+),([\d.]+)( hidden)? ([^;]*))");
  std::vector<Element> elements;
  for (std::sregex_iterator m(line.begin(), line.end(), element), end; m != end; ++m) {
    elements.push_back({(*m)[1], (*m)[7], std::stod((*m)[2]), std::stod((*m)[3]),
                        std::stod((*m)[4]), std::stod((*m)[5]), !(*m)[6].matched});
  }
  return elements;
}

const Element* find(const std::vector<Element>& elements, const std::string& name) {
  for (const Element& e : elements)
    if (e.name == name) return &e;
  return nullptr;
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

auto containing(std::string text) {
  return [text](const std::string& l) { return l.find(text) != std::string::npos; };
}

// `match` for the lines `process` says from now on (waitForLine looks from its first line).
template <typename Match>
auto fromNow(const testing::ChildProcess& process, Match match) {
  return [first = process.lines().size(), match, i = std::size_t{0}](const std::string& l) mutable {
    return i++ >= first && match(l);
  };
}

// A line of the host's elements in which `name` is showing; empty elements when none came.
auto showingElement(const std::string& name) {
  return [name](const std::string& l) {
    const Element* e = find(elementsOf(l), name);
    return e && e->showing;
  };
}

class WindowedHostTest : public ::testing::TestWithParam<Host> {
 protected:
  // The replies the devserver recorded for `pollId`.
  nlohmann::json repliesTo(httplib::Client& admin, int pollId) {
    auto replies = admin.Get("/admin/polls/" + std::to_string(pollId) + "/replies");
    if (!replies || replies->status != 200) return nlohmann::json::array();
    return nlohmann::json::parse(replies->body)["replies"];
  }
  int createPoll(httplib::Client& admin, const std::string& question) {
    const nlohmann::json poll = {{"app_token", kAppToken},
                                 {"question", question},
                                 {"category", "Yes.No"},
                                 {"options", {{{"text", "Yes"}}, {{"text", "No"}}}}};
    auto created = admin.Post("/admin/polls", poll.dump(), "application/json");
    if (!created || created->status != 201) return -1;
    return nlohmann::json::parse(created->body)["id"].get<int>();
  }
  bool push(httplib::Client& admin, int pollId) {
    auto pushed =
        admin.Post("/admin/polls/" + std::to_string(pollId) + "/push", "{}", "application/json");
    return pushed && pushed->status == 200;
  }
};

TEST_P(WindowedHostTest, PushedPollIsAnsweredInTheWindowAndFromANotification) {
  const Host& h = GetParam();
  const auto dir = testing::makeTempDirectory(std::string("quorvia-window-") + h.name);
  std::printf("working in %s\n", dir.c_str());

  // The X server picks a free display number and writes it once it is ready.
  testing::ChildProcess xvfb(
      {"Xvfb", "-displayfd", "1", "-screen", "0",
       std::to_string(kScreenWidth) + "x" + std::to_string(kScreenHeight) + "x24", "-nolisten",
       "tcp"},
      kMerged);
  const std::string number = xvfb.waitForLine([](const std::string& l) {
    return !l.empty() && l.find_first_not_of("0123456789") == std::string::npos;
  });
  ASSERT_FALSE(number.empty()) << "Xvfb (scripts/setup.sh installs it) did not start:\n"
                               << xvfb.output();
  const std::string display = ":" + number;

  // A private session bus with a notification service that prints each bubble and presses a
  // button when told.
  testing::ChildProcess bus({"dbus-daemon", "--session", "--nofork", "--print-address"}, kMerged);
  const std::string address = bus.waitForLine(containing("unix:"));
  ASSERT_FALSE(address.empty()) << bus.output();
  testing::ChildProcess notifications(
      {"/usr/bin/python3", QUORVIA_NOTIFICATION_SERVICE, "--address", address}, kMerged);
  ASSERT_FALSE(notifications.waitForLine(containing("\"ready\"")).empty())
      << notifications.output();

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

  std::vector<std::string> environment = h.environment;
  environment.push_back("DISPLAY=" + display);
  environment.push_back("DBUS_SESSION_BUS_ADDRESS=" + address);
  environment.push_back("XDG_DATA_HOME=" + dir.string());
  testing::ChildProcess host(
      {h.binary, "--print-frames", "--app-token", kAppToken, "--service-url",
       "http://127.0.0.1:" + std::to_string(port), "--push-broker", broker.url(), "--data-dir",
       (dir / "host").string(), "--width", std::to_string(kScreenWidth), "--height",
       std::to_string(kWindowHeight)},
      {.environment = environment, .errorsInOutput = true});
  ASSERT_FALSE(host.waitForLine(containing("host: ready")).empty()) << host.output();
  // The device registers through the broker before a push can reach it.
  ASSERT_FALSE(host.waitForLine(containing("host: registered")).empty()) << host.output();

  // In front: focusing the root window first and then the host's makes one activation
  // whatever focus the window had from its mapping.
  const auto windowId = run(display, std::string("xdotool search --sync --name '") + h.title + "'");
  const auto rootId = run(display, "xdotool search --maxdepth 0 --name ''");
  ASSERT_TRUE(windowId && rootId);
  // Where the window is on the screen: the host says where things are in the window.
  double originX = 0, originY = 0;
  {
    const auto geometry = run(display, "xdotool getwindowgeometry " + *windowId + " | sed -n 2p");
    ASSERT_TRUE(geometry &&
                std::sscanf(geometry->c_str(), " Position: %lf,%lf", &originX, &originY) == 2)
        << geometry.value_or("no geometry");
  }
  auto focused = fromNow(host, containing("host: focus gained"));
  for (const std::string& target : {*rootId, *windowId}) {
    EXPECT_TRUE(run(display, "xdotool windowfocus --sync " + target));
  }
  ASSERT_FALSE(host.waitForLine(focused).empty()) << host.output();

  const int first = createPoll(admin, "Tea or coffee?");
  ASSERT_GT(first, 0);
  ASSERT_TRUE(push(admin, first));
  ASSERT_FALSE(host.waitForLine(containing("host: presented Tea or coffee?")).empty())
      << host.output();
  const auto collapsed = elementsOf(host.waitForLine([](const std::string& l) {
    const Element* poll = find(elementsOf(l), "Poll");
    return poll && poll->y == 20;
  }));
  const Element* banner = find(collapsed, "Poll");
  const Element* question = find(collapsed, "Tea or coffee?");
  ASSERT_TRUE(banner && question && find(collapsed, "Close")) << host.output();
  EXPECT_EQ(banner->role, "alert");
  EXPECT_EQ(banner->w, kScreenWidth);
  EXPECT_EQ(question->role, "label");
  const std::string before = screenshot(display, dir / "collapsed.rgb");
  ASSERT_EQ(before.size(), std::size_t{kScreenWidth} * kScreenHeight * 3);
  // The card is white around the question.
  EXPECT_EQ(rgb(before, originX + question->x + 2, originY + question->y + 2),
            (std::array<int, 3>{255, 255, 255}));

  const auto click = [&](const Element& e) {
    EXPECT_TRUE(run(display, "xdotool mousemove --sync " + std::to_string(originX + e.x + e.w / 2) +
                                 " " + std::to_string(originY + e.y + e.h / 2) + " click 1"));
  };
  click(*question);
  const auto expanded = elementsOf(host.waitForLine(showingElement("Yes")));
  const Element* yes = find(expanded, "Yes");
  ASSERT_TRUE(yes) << host.output();
  EXPECT_EQ(yes->role, "button");
  const std::string after = screenshot(display, dir / "expanded.rgb");
  ASSERT_EQ(after.size(), before.size());
  // The backdrop darkens the host's content below the card.
  const double belowY = originY + kWindowHeight - 20;
  EXPECT_LT(rgb(after, originX + 187, belowY)[0], rgb(before, originX + 187, belowY)[0] * 0.6);

  click(*yes);
  ASSERT_FALSE(host.waitForLine(containing("host: replied Yes ok")).empty()) << host.output();
  auto replies = repliesTo(admin, first);
  ASSERT_EQ(replies.size(), 1u) << replies;
  EXPECT_EQ(replies[0]["reply_text"], "Yes");
  ASSERT_FALSE(host.waitForLine(containing("host: hidden")).empty()) << host.output();

  // In the background a push is also a desktop notification, with the category's buttons.
  auto unfocused = fromNow(host, containing("host: focus lost"));
  // Below or above the window, wherever the root window shows.
  EXPECT_TRUE(run(display, "xdotool mousemove --sync 187 " +
                               std::to_string(originY > 0 ? 5 : kScreenHeight - 5)));
  EXPECT_TRUE(run(display, "xdotool windowfocus --sync " + *rootId));
  ASSERT_FALSE(host.waitForLine(unfocused).empty()) << host.output();
  const int second = createPoll(admin, "Rain or shine?");
  ASSERT_GT(second, 0);
  ASSERT_TRUE(push(admin, second));
  const std::string bubble = notifications.waitForLine(containing("Rain or shine?"));
  ASSERT_FALSE(bubble.empty()) << notifications.output() << host.output();
  const auto note = nlohmann::json::parse(bubble);
  EXPECT_NE(std::find(note["actions"].begin(), note["actions"].end(), "Yes"), note["actions"].end())
      << bubble;
  auto answered = fromNow(host, containing("host: replied Yes ok"));
  ASSERT_TRUE(notifications.write("invoke " + std::to_string(note["id"].get<int>()) + " Yes\n"));
  ASSERT_FALSE(host.waitForLine(answered).empty()) << host.output();
  replies = repliesTo(admin, second);
  ASSERT_EQ(replies.size(), 1u) << replies;
  EXPECT_EQ(replies[0]["reply_text"], "Yes");
  // A failed run keeps its screenshots and logs for a look.
  if (!::testing::Test::HasFailure()) std::filesystem::remove_all(dir);
}

std::vector<Host> hostsBuilt() {
  std::vector<Host> hosts;
#ifdef QUORVIA_DESKTOP_HOST_BINARY
  // SDL's software renderer has the X server draw each frame before the present returns.
  hosts.push_back({"sdl",
                   QUORVIA_DESKTOP_HOST_BINARY,
                   "Quorvia desktop host",
                   {"SDL_VIDEODRIVER=x11", "SDL_RENDER_DRIVER=software"}});
#endif
#ifdef QUORVIA_GTK4_HOST_BINARY
  hosts.push_back({"gtk4",
                   QUORVIA_GTK4_HOST_BINARY,
                   "Quorvia GTK 4 host",
                   {"GDK_BACKEND=x11", "GSK_RENDERER=cairo", "GTK_A11Y=none"}});
#endif
#ifdef QUORVIA_QT6_HOST_BINARY
  hosts.push_back({"qt6",
                   QUORVIA_QT6_HOST_BINARY,
                   "Quorvia Qt 6 host",
                   {"QT_QPA_PLATFORM=xcb", "QT_ACCESSIBILITY=0"}});
#endif
  return hosts;
}

INSTANTIATE_TEST_SUITE_P(Hosts, WindowedHostTest, ::testing::ValuesIn(hostsBuilt()),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace quorvia
