// The desktop host in a real X window: Xvfb, a broker, the devserver and the host are started
// here; xdotool clicks where the host says the banner's rows are, and screenshots show the
// banner's pixels there.
#include <cairo.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "support/PlatformTest.h"
#include "support/MosquittoBroker.h"
#include "window/ChildProcess.h"

namespace quorvia {
namespace {

using namespace std::chrono_literals;
using testing::ChildProcess;

constexpr const char* kAdminToken = "window-test-admin";
constexpr const char* kAppToken = "window-test-app";
constexpr auto kBound = 30s;

struct Box {
  double x = 0, y = 0, w = 0, h = 0;
  double cx() const { return x + w / 2; }
  double cy() const { return y + h / 2; }
};

// "frames banner=x,y,w,h rows=x,y,w,h;... [backdrop=a]" as the host prints it.
struct Frames {
  Box banner;
  std::vector<Box> rows;
  double backdrop = -1;
};

Frames parseFrames(const std::string& line) {
  Frames frames;
  auto box = [](const std::string& text) {
    Box b;
    std::sscanf(text.c_str(), "%lf,%lf,%lf,%lf", &b.x, &b.y, &b.w, &b.h);
    return b;
  };
  std::istringstream words(line);
  for (std::string word; words >> word;) {
    if (word.rfind("banner=", 0) == 0) frames.banner = box(word.substr(7));
    if (word.rfind("backdrop=", 0) == 0) frames.backdrop = std::atof(word.c_str() + 9);
    if (word.rfind("rows=", 0) == 0) {
      std::istringstream rows(word.substr(5));
      for (std::string row; std::getline(rows, row, ';');) frames.rows.push_back(box(row));
    }
  }
  return frames;
}

// A screenshot of the whole X screen, read back as Cairo's native 0xAARRGGBB words. The X
// server may show a client's frame a little after the client presented it, so the screen is
// captured until two captures in a row agree (at most ten times).
class Screenshot {
 public:
  Screenshot(const std::string& display, const std::filesystem::path& png) {
    for (int i = 0; i < 10; ++i) {
      cairo_surface_t* next = capture(display, png);
      const bool same = surface_ && next && equal(surface_, next);
      if (surface_) cairo_surface_destroy(surface_);
      surface_ = next;
      if (same || !next) return;
    }
  }
  ~Screenshot() {
    if (surface_) cairo_surface_destroy(surface_);
  }
  Screenshot(const Screenshot&) = delete;
  Screenshot& operator=(const Screenshot&) = delete;
  bool ok() const { return surface_ && cairo_surface_status(surface_) == CAIRO_STATUS_SUCCESS; }
  // Red, green, blue at a point of the window (scale 1, the window at the screen's origin).
  std::array<int, 3> rgb(double x, double y) const {
    const auto* row = cairo_image_surface_get_data(surface_) +
                      static_cast<int>(y) * cairo_image_surface_get_stride(surface_);
    const std::uint32_t p = reinterpret_cast<const std::uint32_t*>(row)[static_cast<int>(x)];
    return {static_cast<int>((p >> 16) & 0xff), static_cast<int>((p >> 8) & 0xff),
            static_cast<int>(p & 0xff)};
  }

 private:
  static cairo_surface_t* capture(const std::string& display, const std::filesystem::path& png) {
    ChildProcess import(
        {"import", "-display", display, "-window", "root", "PNG24:" + png.string()});
    if (import.waitExit(kBound) != 0) {
      ADD_FAILURE() << "imagemagick's import could not capture the screen";
      return nullptr;
    }
    cairo_surface_t* surface = cairo_image_surface_create_from_png(png.c_str());
    if (cairo_surface_status(surface) == CAIRO_STATUS_SUCCESS) return surface;
    cairo_surface_destroy(surface);
    return nullptr;
  }
  static bool equal(cairo_surface_t* a, cairo_surface_t* b) {
    const int h = cairo_image_surface_get_height(a);
    const int stride = cairo_image_surface_get_stride(a);
    return h == cairo_image_surface_get_height(b) && stride == cairo_image_surface_get_stride(b) &&
           std::memcmp(cairo_image_surface_get_data(a), cairo_image_surface_get_data(b),
                       static_cast<std::size_t>(h) * stride) == 0;
  }
  cairo_surface_t* surface_ = nullptr;
};

void keepForDocs(const std::filesystem::path& png, const char* name) {
  if (const char* dir = std::getenv("QUORVIA_DOC_IMAGES_DIR")) {
    std::filesystem::copy_file(png, std::filesystem::path(dir) / name,
                               std::filesystem::copy_options::overwrite_existing);
  }
}

bool startsWith(const std::string& line, const char* prefix) { return line.rfind(prefix, 0) == 0; }

std::string describe(const ChildProcess& child) {
  std::string all;
  for (const auto& line : child.output()) all += line + "\n";
  return all;
}

TEST(WindowedHostTest, ShowsTheFetchedPollAndSendsTheClickedOption) {
  const auto dir = testing::makeTempDirectory("quorvia-window");
  std::printf("working in %s\n", dir.c_str());

  // The X server picks a free display number and writes it to descriptor 3 once it is ready.
  ChildProcess xvfb({"Xvfb", "-displayfd", "3", "-screen", "0", "375x667x24", "-nolisten", "tcp"},
                    {}, /*fdWriter=*/true);
  ASSERT_TRUE(xvfb.running()) << "Xvfb is required: scripts/setup.sh installs it";
  const std::string number = xvfb.readFd3Line(kBound);
  ASSERT_FALSE(number.empty()) << "Xvfb did not start:\n" << describe(xvfb);
  const std::string display = ":" + number;

  std::filesystem::create_directories(dir / "broker");
  testing::MosquittoBroker broker(dir / "broker");
  std::string brokerError;
  ASSERT_TRUE(broker.start(testing::MosquittoBroker::freePort(), &brokerError)) << brokerError;

  ChildProcess server({QUORVIA_DEVSERVER_BINARY, "--port", "0", "--db",
                       (dir / "devserver.sqlite3").string(), "--admin-token", kAdminToken,
                       "--broker", broker.url()});
  const std::string listening = server.waitForLine(
      [](const std::string& l) { return startsWith(l, "listening on http://127.0.0.1:"); }, kBound);
  ASSERT_FALSE(listening.empty()) << describe(server);
  const int port = std::atoi(listening.c_str() + std::strlen("listening on http://127.0.0.1:"));
  httplib::Client admin("127.0.0.1", port);
  admin.set_default_headers({{"X-Quorvia-Admin-Token", kAdminToken}});
  const nlohmann::json poll = {{"app_token", kAppToken},
                               {"question", "Tea or coffee?"},
                               {"options", {{{"text", "Yes"}}, {{"text", "No"}}}}};
  auto created = admin.Post("/admin/polls", poll.dump(), "application/json");
  ASSERT_TRUE(created && created->status == 201);
  const auto pollId = nlohmann::json::parse(created->body)["id"].get<int>();

  ChildProcess host({QUORVIA_DESKTOP_HOST_BINARY, "--print-frames", "--app-token", kAppToken,
                     "--data-dir", (dir / "host").string()},
                    // SDL's software renderer has the X server draw each frame before
                    // the present returns, so a screenshot after a printed frame shows it.
                    {"DISPLAY=" + display, "SDL_VIDEODRIVER=x11", "SDL_RENDER_DRIVER=software",
                     "QUORVIA_SERVICE_BASE_URL=http://127.0.0.1:" + std::to_string(port),
                     "QUORVIA_PUSH_BROKER=" + broker.url(), "XDG_DATA_HOME=" + dir.string()});
  ASSERT_FALSE(
      host.waitForLine([](const auto& l) { return startsWith(l, "host: ready"); }, kBound).empty())
      << describe(host);
  // The device registers through the broker before a fetch can be answered.
  ASSERT_FALSE(host.waitForLine(
                       [](const auto& l) {
                         return l.find("Successfully registered device push token.") !=
                                std::string::npos;
                       },
                       kBound, /*fromStderr=*/true)
                   .empty())
      << describe(host);

  // The window gains focus: the app becomes active and fetches the poll.
  ChildProcess search({"xdotool", "search", "--sync", "--name", "Quorvia desktop host"},
                      {"DISPLAY=" + display});
  const std::string windowId = search.waitForLine([](const auto&) { return true; }, kBound);
  ASSERT_FALSE(windowId.empty());
  // Whether or not the window had focus from its mapping (which may have come before the
  // device registered), focusing the root window first and then the host's makes one
  // activation that certainly comes after the registration.
  ChildProcess root({"xdotool", "search", "--maxdepth", "0", "--name", ""}, {"DISPLAY=" + display});
  const std::string rootId = root.waitForLine([](const auto&) { return true; }, kBound);
  ASSERT_FALSE(rootId.empty());
  for (const std::string& target : {rootId, windowId}) {
    ChildProcess focus({"xdotool", "windowfocus", "--sync", target}, {"DISPLAY=" + display});
    EXPECT_EQ(focus.waitExit(kBound), 0);
  }

  const auto collapsedLine = host.waitForLine(
      [](const std::string& l) {
        const Frames f = parseFrames(l);
        return startsWith(l, "frames banner=") && f.banner.y == 20 && f.rows.size() == 2;
      },
      kBound);
  ASSERT_FALSE(collapsedLine.empty()) << describe(host);
  const Frames collapsed = parseFrames(collapsedLine);
  EXPECT_EQ(collapsed.banner.w, 375);
  int hostBelow = 0;  // the host's own screen far below the card
  {
    Screenshot shot(display, dir / "collapsed.png");
    ASSERT_TRUE(shot.ok());
    const Box question = collapsed.rows[1];
    EXPECT_EQ(shot.rgb(question.x + 20, question.y + 4), (std::array<int, 3>{255, 255, 255}));
    // Beside the card the SDK's layer is transparent: the host's own screen shows.
    EXPECT_EQ(shot.rgb(4, question.cy()), (std::array<int, 3>{241, 243, 247}));
    EXPECT_EQ(shot.rgb(187, 10), (std::array<int, 3>{49, 92, 191}));  // the host's title bar
    hostBelow = shot.rgb(187, 620)[0];
    keepForDocs(dir / "collapsed.png", "window-collapsed.png");
  }

  auto click = [&](const Box& box) {
    ChildProcess xdotool({"xdotool", "mousemove", "--sync", std::to_string(box.cx()),
                          std::to_string(box.cy()), "click", "1"},
                         {"DISPLAY=" + display});
    EXPECT_EQ(xdotool.waitExit(kBound), 0);
  };
  click(collapsed.rows[1]);
  const auto expandedLine = host.waitForLine(
      [](const std::string& l) {
        const Frames f = parseFrames(l);
        return f.rows.size() == 4 && f.backdrop == 1;
      },
      kBound);
  ASSERT_FALSE(expandedLine.empty()) << describe(host);
  const Frames expanded = parseFrames(expandedLine);
  {
    Screenshot shot(display, dir / "expanded.png");
    ASSERT_TRUE(shot.ok());
    EXPECT_EQ(shot.rgb(expanded.rows[2].x + 20, expanded.rows[2].y + 4),
              (std::array<int, 3>{255, 255, 255}));
    // The backdrop's dark tint (alpha 0.62 at full fade) over the host's screen below.
    EXPECT_LT(shot.rgb(187, 620)[0], hostBelow * 0.55);
    keepForDocs(dir / "expanded.png", "window-expanded.png");
  }

  click(expanded.rows[2]);  // "Yes"
  ASSERT_FALSE(host.waitForLine(
                       [](const auto& l) {
                         return l.find("QuorviaSDK: Successfuly sent reply: Yes") !=
                                std::string::npos;
                       },
                       kBound, /*fromStderr=*/true)
                   .empty())
      << describe(host);
  auto replies = admin.Get("/admin/polls/" + std::to_string(pollId) + "/replies");
  ASSERT_TRUE(replies && replies->status == 200);
  const auto list = nlohmann::json::parse(replies->body)["replies"];
  ASSERT_EQ(list.size(), 1u) << replies->body;
  EXPECT_EQ(list[0]["reply_text"], "Yes");
  if (std::getenv("QUORVIA_WINDOW_TEST_VERBOSE")) std::printf("%s", describe(host).c_str());
  // A failed run keeps its screenshots and logs for a look.
  if (!::testing::Test::HasFailure()) std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace quorvia
