#pragma once
// An example host in a real X window, with everything it talks to started by
// the test on loopback and private buses: Xvfb, a session bus, a broker, the
// devserver and the host itself, which says what it does on standard output
// ("host: ..."). Every wait is bounded and on a line or a program's exit.

#include <gtest/gtest.h>
#include <httplib.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/MosquittoBroker.h"
#include "support/PlatformTest.h"
#include "support/PrivateBus.h"

namespace quorvia::testing {

inline constexpr const char* kAdminToken = "window-test-admin";
inline constexpr const char* kAppToken = "window-test-app";
inline constexpr int kScreenWidth = 375;
inline constexpr int kWindowHeight = 667;
// Below the window a strip of the root window: with the pointer there, focusing the root takes
// the focus from the window (X gives a root-focused keyboard to the window under the pointer).
inline constexpr int kScreenHeight = kWindowHeight + 60;
// What a program says on standard error belongs to the failure message too.
inline const ChildProcessOptions kMerged{.errorsInOutput = true};

struct Host {
  const char* name;
  const char* binary;
  const char* title;                     // of its window, for xdotool
  std::vector<std::string> environment;  // what its toolkit needs under Xvfb
  // Whether the banner shows in the toolkit's own accessibility tree (Qt), rather than in an
  // application of the SDK's own.
  bool toolkitPublishesBanner = false;
};

inline std::ostream& operator<<(std::ostream& out, const Host& host) { return out << host.name; }

// The example hosts this build has, each with what its toolkit needs under Xvfb. GTK's and Qt's
// own accessibility stays off unless a test turns it on.
inline std::vector<Host> hostsBuilt() {
  std::vector<Host> hosts;
#ifdef QUORVIA_DESKTOP_HOST_BINARY
  // SDL's software renderer has the X server draw each frame before the present returns. SDL
  // drops a click that comes within 10 ms of the window's focus, as a test's click may.
  hosts.push_back(
      {"sdl",
       QUORVIA_DESKTOP_HOST_BINARY,
       "Quorvia desktop host",
       {"SDL_VIDEODRIVER=x11", "SDL_RENDER_DRIVER=software", "SDL_MOUSE_FOCUS_CLICKTHROUGH=1"}});
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
                   {"QT_QPA_PLATFORM=xcb", "QT_ACCESSIBILITY=0"},
                   true});
#endif
  return hosts;
}

struct Element {
  std::string role, name;
  double x = 0, y = 0, w = 0, h = 0;
  bool showing = false;
  bool focused = false;
};

// The elements of a line "host: elements; ROLE X,Y,W,H[ hidden][ focused] NAME; ..." as the
// hosts say it.
inline std::vector<Element> elementsOf(const std::string& line) {
  static const std::regex element(
      R"(; (\w+) (-?[\d.]+),(-?[\d.]+),([\d.]+),([\d.]+)( hidden)?( focused)? ([^;]*))");
  std::vector<Element> elements;
  for (std::sregex_iterator m(line.begin(), line.end(), element), end; m != end; ++m) {
    elements.push_back({(*m)[1], (*m)[8], std::stod((*m)[2]), std::stod((*m)[3]),
                        std::stod((*m)[4]), std::stod((*m)[5]), !(*m)[6].matched, (*m)[7].matched});
  }
  return elements;
}

inline const Element* find(const std::vector<Element>& elements, const std::string& name) {
  for (const Element& e : elements)
    if (e.name == name) return &e;
  return nullptr;
}

// Runs a short command on `display` (coreutils' timeout ends it after 30 s) and returns the
// first line it printed, or nothing when it failed.
inline std::optional<std::string> run(const std::string& display, const std::string& command) {
  FILE* out = ::popen(("DISPLAY=" + display + " timeout 30 " + command).c_str(), "r");
  if (!out) return std::nullopt;
  std::string text;
  for (int c; (c = std::fgetc(out)) != EOF;) text.push_back(static_cast<char>(c));
  if (::pclose(out) != 0) return std::nullopt;
  return text.substr(0, text.find('\n'));
}

// The X screen as R, G, B bytes. The X server may show a client's frame a little after the
// client presented it, so the screen is captured until two captures in a row agree.
inline std::string screenshot(const std::string& display, const std::filesystem::path& file) {
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

inline std::array<int, 3> rgb(const std::string& shot, double x, double y) {
  const std::size_t at =
      (static_cast<std::size_t>(y) * kScreenWidth + static_cast<std::size_t>(x)) * 3;
  if (at + 3 > shot.size()) return {-1, -1, -1};
  return {static_cast<unsigned char>(shot[at]), static_cast<unsigned char>(shot[at + 1]),
          static_cast<unsigned char>(shot[at + 2])};
}

inline auto containing(std::string text) {
  return [text](const std::string& l) { return l.find(text) != std::string::npos; };
}

// `match` for the lines `process` says from now on (waitForLine looks from its first line).
template <typename Match>
auto fromNow(const ChildProcess& process, Match match) {
  return [first = process.lines().size(), match, i = std::size_t{0}](const std::string& l) mutable {
    return i++ >= first && match(l);
  };
}

// A line of the host's elements in which `name` is showing.
inline auto showingElement(const std::string& name) {
  return [name](const std::string& l) {
    const Element* e = find(elementsOf(l), name);
    return e && e->showing;
  };
}

// A line of the host's elements in which keyboard focus is on `name`.
inline auto focusedElement(const std::string& name) {
  return [name](const std::string& l) {
    const Element* e = find(elementsOf(l), name);
    return e && e->focused;
  };
}

// Xvfb, a private session bus, a broker and the devserver; the host once start() is called.
// Construct it inside a test: failures to start are reported there.
class HostSession {
 public:
  explicit HostSession(const Host& host) : host_(host) {
    dir_ = makeTempDirectory(std::string("quorvia-window-") + host.name);
    std::printf("working in %s\n", dir_.c_str());
    // The X server picks a free display number and writes it once it is ready.
    xvfb_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{
            "Xvfb", "-displayfd", "1", "-screen", "0",
            std::to_string(kScreenWidth) + "x" + std::to_string(kScreenHeight) + "x24", "-nolisten",
            "tcp"},
        kMerged);
    const std::string number = xvfb_->waitForLine([](const std::string& l) {
      return !l.empty() && l.find_first_not_of("0123456789") == std::string::npos;
    });
    if (number.empty()) {
      ADD_FAILURE() << "Xvfb (scripts/setup.sh installs it) did not start:\n" << xvfb_->output();
      return;
    }
    display_ = ":" + number;
    // A session bus that starts no service by itself: what a test needs on it, it starts.
    bus_ = std::make_unique<PrivateBus>(dir_ / "bus");
    address_ = bus_->address;
    if (address_.empty()) {
      ADD_FAILURE() << bus_->daemon.output();
      return;
    }
    broker_ = std::make_unique<MosquittoBroker>(dir_ / "broker");
    std::string brokerError;
    if (!broker_->start(MosquittoBroker::freePort(), &brokerError)) {
      ADD_FAILURE() << brokerError;
      return;
    }
    server_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{QUORVIA_DEVSERVER_BINARY, "--port", "0", "--db",
                                 (dir_ / "devserver.sqlite3").string(), "--admin-token",
                                 kAdminToken, "--broker", broker_->url()},
        kMerged);
    constexpr std::string_view kListening = "listening on http://127.0.0.1:";
    const std::string listening =
        server_->waitForLine([&](const std::string& l) { return l.rfind(kListening, 0) == 0; });
    if (listening.empty()) {
      ADD_FAILURE() << server_->output();
      return;
    }
    port_ = std::atoi(listening.c_str() + kListening.size());
    admin_ = std::make_unique<httplib::Client>("127.0.0.1", port_);
    admin_->set_default_headers({{"X-Quorvia-Admin-Token", kAdminToken}});
    ready_ = true;
  }
  ~HostSession() {
    host_process_.reset();
    // A failed run keeps its screenshots and logs for a look.
    if (ready_ && !::testing::Test::HasFailure()) std::filesystem::remove_all(dir_);
  }
  HostSession(const HostSession&) = delete;
  HostSession& operator=(const HostSession&) = delete;

  bool ready() const { return ready_; }
  const std::filesystem::path& dir() const { return dir_; }
  const std::string& display() const { return display_; }
  // The session bus's address.
  const std::string& busAddress() const { return address_; }
  ChildProcess& host() { return *host_process_; }

  // Starts the host with `environment` added to what its toolkit needs; true once it says it
  // is ready and its device registered through the broker (before that a push cannot reach it).
  bool start(std::vector<std::string> environment = {}) {
    environment.insert(environment.end(), host_.environment.begin(), host_.environment.end());
    environment.push_back("DISPLAY=" + display_);
    environment.push_back("DBUS_SESSION_BUS_ADDRESS=" + address_);
    environment.push_back("XDG_DATA_HOME=" + dir_.string());
    host_process_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{host_.binary, "--print-frames", "--app-token", kAppToken,
                                 "--service-url", "http://127.0.0.1:" + std::to_string(port_),
                                 "--push-broker", broker_->url(), "--data-dir",
                                 (dir_ / "host").string(), "--width", std::to_string(kScreenWidth),
                                 "--height", std::to_string(kWindowHeight)},
        ChildProcessOptions{.environment = environment, .errorsInOutput = true});
    return !host_process_->waitForLine(containing("host: ready")).empty() &&
           !host_process_->waitForLine(containing("host: registered")).empty();
  }

  // The ids of the host's window and of the root window, for xdotool.
  std::optional<std::string> windowId() {
    return run(display_, std::string("xdotool search --sync --name '") + host_.title + "'");
  }
  std::optional<std::string> rootId() {
    return run(display_, "xdotool search --maxdepth 0 --name ''");
  }

  // Where the window is on the screen: the host says where things are in the window.
  bool windowOrigin(double& x, double& y) {
    const auto id = windowId();
    if (!id) return false;
    const auto geometry = run(display_, "xdotool getwindowgeometry " + *id + " | sed -n 2p");
    return geometry && std::sscanf(geometry->c_str(), " Position: %lf,%lf", &x, &y) == 2;
  }

  // Brings the window to the front with the keyboard: focusing the root window first and then
  // the host's makes one activation whatever focus the window had from its mapping.
  bool focusWindow() {
    const auto window = windowId();
    const auto root = rootId();
    if (!window || !root) return false;
    auto focused = fromNow(*host_process_, containing("host: focus gained"));
    for (const std::string& target : {*root, *window}) {
      if (!run(display_, "xdotool windowfocus --sync " + target)) return false;
    }
    return !host_process_->waitForLine(focused).empty();
  }

  // Types keys (xdotool's names) into the focused window, one after the other.
  bool key(const std::string& keys) {
    return run(display_, "xdotool key --delay 0 " + keys).has_value();
  }

  // The id of a new poll with the options "Yes" and "No", or -1.
  int createPoll(const std::string& question) {
    const nlohmann::json poll = {{"app_token", kAppToken},
                                 {"question", question},
                                 {"category", "Yes.No"},
                                 {"options", {{{"text", "Yes"}}, {{"text", "No"}}}}};
    auto created = admin_->Post("/admin/polls", poll.dump(), "application/json");
    if (!created || created->status != 201) return -1;
    return nlohmann::json::parse(created->body)["id"].get<int>();
  }
  bool push(int pollId) {
    auto pushed =
        admin_->Post("/admin/polls/" + std::to_string(pollId) + "/push", "{}", "application/json");
    return pushed && pushed->status == 200;
  }
  // The replies the devserver recorded for `pollId`.
  nlohmann::json repliesTo(int pollId) {
    auto replies = admin_->Get("/admin/polls/" + std::to_string(pollId) + "/replies");
    if (!replies || replies->status != 200) return nlohmann::json::array();
    return nlohmann::json::parse(replies->body)["replies"];
  }

 private:
  Host host_;
  std::filesystem::path dir_;
  std::string display_, address_;
  int port_ = 0;
  bool ready_ = false;
  std::unique_ptr<ChildProcess> xvfb_;
  std::unique_ptr<PrivateBus> bus_;
  std::unique_ptr<ChildProcess> server_;
  std::unique_ptr<MosquittoBroker> broker_;
  std::unique_ptr<httplib::Client> admin_;
  std::unique_ptr<ChildProcess> host_process_;
};

}  // namespace quorvia::testing
