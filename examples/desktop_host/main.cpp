// A desktop application that shows the SDK's poll banner in its own SDL2
// window: the host draws its own screen (a list), the SDK paints its layer
// into a buffer the host owns, and the host composites that layer on top,
// forwards the mouse and the window's focus, and runs the SDK's main queue
// from its own event loop.
#include <SDL.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "quorvia/QuorviaSDK.h"
#include "quorvia/platform/Application.h"
#include "quorvia/platform/ApplicationDelegate.h"
#include "quorvia/platform/Environment.h"
#include "quorvia/platform/HostWindow.h"
#include "quorvia/platform/RunLoop.h"
#include "quorvia/platform/Runtime.h"
#include "quorvia/platform/Window.h"

namespace {

using namespace quorvia;

constexpr const char* kUsage = R"(Usage: quorvia-desktop-host [options]

Shows the Quorvia poll banner in an SDL2 window over the app's own screen.

Options:
  --app-token TOKEN     the application token the SDK starts with (default: demo-app-token)
  --service-url URL     the poll service (default: $QUORVIA_SERVICE_BASE_URL, else the
                        SDK's built-in http://127.0.0.1:8765)
  --push-broker URL     the MQTT broker (default: $QUORVIA_PUSH_BROKER, else
                        mqtt://127.0.0.1:1883)
  --data-dir DIR        where the SDK keeps its files (default: $XDG_DATA_HOME/quorvia/
                        quorvia-desktop-host)
  --width POINTS        window width in points (default: 375)
  --height POINTS       window height in points (default: 667)
  --scale N             pixels per point (default: 1)
  --print-frames        print the banner's on-screen frames (points) on stdout
  -h, --help            print this help
  --version             print the version
)";

struct Options {
  std::string appToken = "demo-app-token";
  std::string dataDir;
  double width = 375;
  double height = 667;
  double scale = 1;
  bool printFrames = false;
};

// Parses the flags; exits 0 after --help/--version and 2 on a usage error.
Options parse(int argc, char** argv) {
  Options options;
  auto fail = [](const std::string& message) {
    std::fprintf(stderr, "quorvia-desktop-host: %s (see --help)\n", message.c_str());
    std::exit(2);
  };
  auto number = [&](const char* flag, const char* text) {
    char* end = nullptr;
    const double value = std::strtod(text, &end);
    if (!end || *end || !(value > 0) || value > 10000)
      fail(std::string(flag) + " needs a positive number");
    return value;
  };
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&]() -> const char* {
      if (i + 1 >= argc) fail(arg + " needs a value");
      return argv[++i];
    };
    if (arg == "-h" || arg == "--help") {
      std::fputs(kUsage, stdout);
      std::exit(0);
    } else if (arg == "--version") {
      std::printf("quorvia-desktop-host %s\n", std::string(QuorviaSDK::version()).c_str());
      std::exit(0);
    } else if (arg == "--app-token") {
      options.appToken = value();
    } else if (arg == "--service-url") {
      // The SDK reads its addresses from the environment only.
      ::setenv("QUORVIA_SERVICE_BASE_URL", value(), 1);
    } else if (arg == "--push-broker") {
      ::setenv("QUORVIA_PUSH_BROKER", value(), 1);
    } else if (arg == "--data-dir") {
      options.dataDir = value();
    } else if (arg == "--width") {
      options.width = number("--width", value());
    } else if (arg == "--height") {
      options.height = number("--height", value());
    } else if (arg == "--scale") {
      options.scale = number("--scale", value());
    } else if (arg == "--print-frames") {
      options.printFrames = true;
    } else {
      fail("unknown option " + arg);
    }
  }
  if (options.appToken.empty()) fail("--app-token must not be empty");
  return options;
}

// The application delegate: the SDK intercepts its push callbacks; the host's
// own implementations only say that they ran and complete what they were given.
std::shared_ptr<platform::Object> makeAppDelegate() {
  auto cls = platform::Class::create("DesktopHostAppDelegate");
  for (auto selector : {platform::kDidRegisterForRemoteNotificationsSelector,
                        platform::kDidFailToRegisterForRemoteNotificationsSelector,
                        platform::kDidReceiveRemoteNotificationFetchSelector}) {
    platform::class_addMethod(
        cls.get(), selector,
        [name = std::string(selector)](platform::Object&, const platform::MessageArguments& args) {
          std::printf("host: %s\n", name.c_str());
          std::fflush(stdout);
          if (args.fetchCompletionHandler)
            args.fetchCompletionHandler(platform::UIBackgroundFetchResultNoData);
        },
        platform::applicationDelegateTypeEncoding(selector));
  }
  return std::make_shared<platform::Object>(cls);
}

// Wakes SDL's event loop when the SDK's main queue has work posted from
// another thread (a network reply, a push): SDL cannot wait on a descriptor.
class QueueWaker final {
 public:
  explicit QueueWaker(Uint32 eventType) : eventType_(eventType), thread_([this] { run(); }) {}
  ~QueueWaker() {
    const std::uint64_t one = 1;
    {
      std::lock_guard lock(mu_);
      quit_ = true;
    }
    cv_.notify_all();
    while (::write(quitFd_, &one, sizeof one) < 0 && errno == EINTR) {
    }
    thread_.join();
    ::close(quitFd_);
  }
  QueueWaker(const QueueWaker&) = delete;
  QueueWaker& operator=(const QueueWaker&) = delete;
  /// The main thread drained the queue: the descriptor may be waited on again.
  void drained() {
    {
      std::lock_guard lock(mu_);
      drained_ = true;
    }
    cv_.notify_all();
  }

 private:
  void run() {
    const int queueFd = platform::mainRunLoop().wakeFileDescriptor();
    for (;;) {
      pollfd fds[2] = {{queueFd, POLLIN, 0}, {quitFd_, POLLIN, 0}};
      if (::poll(fds, 2, -1) < 0 && errno != EINTR) return;
      if (fds[1].revents) return;
      if (!fds[0].revents) continue;
      std::unique_lock lock(mu_);
      drained_ = false;
      SDL_Event event{};
      event.type = eventType_;
      SDL_PushEvent(&event);
      // The descriptor stays readable until the main thread drains.
      cv_.wait(lock, [this] { return drained_ || quit_; });
      if (quit_) return;
    }
  }

  const Uint32 eventType_;
  const int quitFd_ = ::eventfd(0, EFD_CLOEXEC);
  std::mutex mu_;
  std::condition_variable cv_;
  bool drained_ = true;
  bool quit_ = false;
  std::thread thread_;
};

// The host's own screen: a title bar and a list of rows, in pixels.
void drawHostScreen(SDL_Renderer* renderer, int width, int height, double scale, int selected) {
  auto px = [scale](double points) { return static_cast<int>(points * scale); };
  SDL_SetRenderDrawColor(renderer, 241, 243, 247, 255);
  SDL_RenderClear(renderer);
  SDL_SetRenderDrawColor(renderer, 49, 92, 191, 255);
  SDL_Rect bar{0, 0, width, px(64)};
  SDL_RenderFillRect(renderer, &bar);
  for (int i = 0; px(80 + i * 72.0) < height; ++i) {
    SDL_Rect row{px(16), px(80 + i * 72.0), width - px(32), px(60)};
    if (i == selected) {
      SDL_SetRenderDrawColor(renderer, 214, 226, 252, 255);
    } else {
      SDL_SetRenderDrawColor(renderer, 255, 255, 255, 255);
    }
    SDL_RenderFillRect(renderer, &row);
    SDL_Rect title{row.x + px(16), row.y + px(14), row.w / 2 - px(20 * (i % 3)), px(12)};
    SDL_SetRenderDrawColor(renderer, 60, 60, 67, 255);
    SDL_RenderFillRect(renderer, &title);
    SDL_Rect detail{row.x + px(16), row.y + px(36), row.w / 3, px(8)};
    SDL_SetRenderDrawColor(renderer, 174, 174, 178, 255);
    SDL_RenderFillRect(renderer, &detail);
  }
}

// The banner's frame and its rows' frames, in window points, as drawn now.
std::string describeBanner(platform::Window& window) {
  std::shared_ptr<platform::View> banner;
  for (const auto& view : window.subviews()) {
    if (view->subviews().size() == 1 && !view->subviews().front()->subviews().empty())
      banner = view;
  }
  if (!banner) return "frames none";
  const platform::Rect b = banner->presentationFrame();
  auto rect = [](double x, double y, double w, double h) {
    char text[96];
    std::snprintf(text, sizeof text, "%.1f,%.1f,%.1f,%.1f", x, y, w, h);
    return std::string(text);
  };
  std::string line = "frames banner=" + rect(b.x(), b.y(), b.width(), b.height()) + " rows=";
  const auto& table = banner->subviews().front();
  const platform::Rect t = table->presentationFrame();
  std::vector<platform::Rect> rows;
  for (const auto& row : table->subviews()) {
    const platform::Rect r = row->presentationFrame();
    if (r.height() > 8 && !row->isHidden()) rows.push_back(r);  // 8-point gaps are no rows
  }
  std::sort(rows.begin(), rows.end(), [](const auto& a, const auto& c) { return a.y() < c.y(); });
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (i) line += ";";
    line += rect(b.x() + t.x() + rows[i].x(), b.y() + t.y() + rows[i].y(), rows[i].width(),
                 rows[i].height());
  }
  // The backdrop under an expanded banner carries this tag.
  if (auto backdrop = window.viewWithTag(234555)) {
    char alpha[32];
    std::snprintf(alpha, sizeof alpha, " backdrop=%.3f", backdrop->presentationAlpha());
    line += alpha;
  }
  return line;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);

  platform::DesktopEnvironmentOptions env{.appIdentifier = "quorvia-desktop-host"};
  if (!options.dataDir.empty()) env.dataDirectory = options.dataDir;
  platform::installEnvironment(platform::makeDesktopEnvironment(env));

  if (SDL_Init(SDL_INIT_VIDEO) != 0) {
    std::fprintf(stderr, "quorvia-desktop-host: SDL: %s\n", SDL_GetError());
    return 1;
  }
  // The key window comes first, so the banner takes its width.
  platform::HostWindow host({options.width, options.height}, options.scale);
  int width = host.pixelWidth(), height = host.pixelHeight();
  SDL_Window* window =
      SDL_CreateWindow("Quorvia desktop host", SDL_WINDOWPOS_CENTERED, SDL_WINDOWPOS_CENTERED,
                       width, height, SDL_WINDOW_RESIZABLE);
  SDL_Renderer* renderer = window ? SDL_CreateRenderer(window, -1, 0) : nullptr;
  if (!renderer) {
    std::fprintf(stderr, "quorvia-desktop-host: SDL: %s\n", SDL_GetError());
    return 1;
  }
  // The SDK's layer: premultiplied B, G, R, A bytes, which is SDL's ARGB8888.
  const SDL_BlendMode premultiplied = SDL_ComposeCustomBlendMode(
      SDL_BLENDFACTOR_ONE, SDL_BLENDFACTOR_ONE_MINUS_SRC_ALPHA, SDL_BLENDOPERATION_ADD,
      SDL_BLENDFACTOR_ONE, SDL_BLENDFACTOR_ONE_MINUS_SRC_ALPHA, SDL_BLENDOPERATION_ADD);
  std::vector<std::uint8_t> layer, upload;
  SDL_Texture* texture = nullptr;
  bool straightAlpha = false;  // the renderer cannot blend premultiplied pixels
  auto makeLayer = [&] {
    if (texture) SDL_DestroyTexture(texture);
    layer.assign(static_cast<std::size_t>(width) * height * 4, 0);
    texture = SDL_CreateTexture(renderer, SDL_PIXELFORMAT_ARGB8888, SDL_TEXTUREACCESS_STREAMING,
                                width, height);
    straightAlpha = SDL_SetTextureBlendMode(texture, premultiplied) != 0;
    if (straightAlpha) SDL_SetTextureBlendMode(texture, SDL_BLENDMODE_BLEND);
    SDL_UpdateTexture(texture, nullptr, layer.data(), width * 4);
  };
  makeLayer();

  bool repaint = true;
  host.setRepaintCallback([&repaint] { repaint = true; });

  auto& app = platform::Application::sharedApplication();
  app.setDelegate(makeAppDelegate());
  QuorviaSDK::initWithAppToken(options.appToken, std::nullopt, /*swizzling=*/true);
  // A desktop asks nobody for permission: what the app registers (alerts and
  // the SDK's six answer categories) is what the user allows. An empty set,
  // not none, so that the SDK's categories are merged into it.
  app.setCurrentUserNotificationSettings(platform::NotificationSettings::settingsForTypes(
      platform::kUserNotificationTypeNone, platform::CategorySet{}));
  QuorviaSDK::askUserForPushPermissions();
  if (const auto asked = app.registeredUserNotificationSettings(); !asked.empty()) {
    app.setCurrentUserNotificationSettings(asked.back());
  }

  const Uint32 queueEvent = SDL_RegisterEvents(1);
  QueueWaker waker(queueEvent);
  auto& loop = platform::mainRunLoop();
  int selected = -1;
  std::string lastFrames;
  std::printf("host: ready, window %u\n", SDL_GetWindowID(window));
  std::fflush(stdout);

  for (bool running = true; running;) {
    loop.drainOnce();
    waker.drained();
    if (repaint) {
      repaint = false;
      for (const platform::PixelRect& r : host.paint({layer.data(), width, height, width * 4})) {
        const SDL_Rect rect{r.x, r.y, r.width, r.height};
        const std::uint8_t* first = &layer[(static_cast<std::size_t>(r.y) * width + r.x) * 4];
        if (!straightAlpha) {
          SDL_UpdateTexture(texture, &rect, first, width * 4);
          continue;
        }
        upload.resize(static_cast<std::size_t>(r.width) * r.height * 4);
        for (int y = 0; y < r.height; ++y) {
          for (int x = 0; x < r.width * 4; x += 4) {
            const std::uint8_t* p = first + static_cast<std::size_t>(y) * width * 4 + x;
            std::uint8_t* q = &upload[static_cast<std::size_t>(y) * r.width * 4 + x];
            const unsigned a = p[3];
            for (int c = 0; c < 3; ++c)
              q[c] = a ? static_cast<std::uint8_t>(std::min(255u, p[c] * 255u / a)) : 0;
            q[3] = static_cast<std::uint8_t>(a);
          }
        }
        SDL_UpdateTexture(texture, &rect, upload.data(), r.width * 4);
      }
      drawHostScreen(renderer, width, height, options.scale, selected);
      SDL_RenderCopy(renderer, texture, nullptr, nullptr);
      SDL_RenderPresent(renderer);
      if (options.printFrames) {
        const std::string frames = describeBanner(*host.window());
        if (frames != lastFrames) {
          std::printf("%s\n", frames.c_str());
          std::fflush(stdout);
          lastFrames = frames;
        }
      }
    }
    // Sleep until an input event, the SDK's queue or its next timer.
    int timeoutMs = -1;
    if (auto next = loop.timeUntilNextTimer()) {
      timeoutMs = static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(*next).count());
    }
    SDL_Event event;
    if (!SDL_WaitEventTimeout(&event, timeoutMs < 0 ? 60'000 : timeoutMs)) continue;
    do {
      const double s = options.scale;
      switch (event.type) {
        case SDL_QUIT:
          running = false;
          break;
        case SDL_MOUSEBUTTONDOWN:
          if (event.button.button != SDL_BUTTON_LEFT) break;
          if (host.pointerDown({event.button.x / s, event.button.y / s}) ==
              platform::PointerAnswer::kPassed) {
            // The host's own list takes the click.
            const double y = event.button.y / s;
            selected = y >= 80 ? static_cast<int>((y - 80) / 72) : -1;
            std::printf("host: row %d\n", selected);
            std::fflush(stdout);
            repaint = true;
          }
          break;
        case SDL_MOUSEMOTION:
          host.pointerMove({event.motion.x / s, event.motion.y / s});
          break;
        case SDL_MOUSEBUTTONUP:
          if (event.button.button == SDL_BUTTON_LEFT) {
            host.pointerUp({event.button.x / s, event.button.y / s});
          }
          break;
        case SDL_WINDOWEVENT:
          switch (event.window.event) {
            case SDL_WINDOWEVENT_FOCUS_GAINED:
              std::printf("host: focus gained\n");
              std::fflush(stdout);
              host.setFocused(true);
              break;
            case SDL_WINDOWEVENT_FOCUS_LOST:
              std::printf("host: focus lost\n");
              std::fflush(stdout);
              host.setFocused(false);
              host.pointerCancel();
              break;
            case SDL_WINDOWEVENT_SIZE_CHANGED:
              width = event.window.data1;
              height = event.window.data2;
              host.setSize({width / options.scale, height / options.scale}, options.scale);
              makeLayer();
              host.invalidate();  // the new buffer holds nothing yet
              break;
            case SDL_WINDOWEVENT_EXPOSED:
              repaint = true;  // the layer texture still holds the SDK's pixels
              break;
            default:
              break;
          }
          break;
        default:
          break;
      }
    } while (SDL_PollEvent(&event));
  }
  SDL_DestroyTexture(texture);
  SDL_DestroyRenderer(renderer);
  SDL_DestroyWindow(window);
  SDL_Quit();
  return 0;
}
