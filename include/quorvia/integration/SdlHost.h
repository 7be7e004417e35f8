#pragma once
/// \file
/// The SDK in an SDL 2 application, header-only (the library links no
/// toolkit): SdlMainQueue runs the SDK's main queue from the host's event
/// loop, SdlBanner shows the banner over the host's own drawing.
///
///     quorvia::integration::SdlBanner banner(window, renderer);  // before the SDK starts
///     quorvia::integration::SdlMainQueue queue;
///     quorvia::QuorviaSDK::initWithAppToken("app-token", std::nullopt);
///     for (SDL_Event event; queue.waitEvent(event);) {
///       if (banner.handleEvent(event)) continue;  // the banner took it
///       // ... the host's own events; on SDL_WINDOWEVENT_EXPOSED redraw:
///       //     draw the host's content, banner.render(), SDL_RenderPresent()
///     }
///
/// Both live on the main thread, the one that runs the loop.

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
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "quorvia/platform/HostWindow.h"
#include "quorvia/platform/RunLoop.h"

namespace quorvia::integration {

/// Runs the SDK's main queue from an SDL event loop. SDL cannot wait on a
/// descriptor, so a thread of its own waits on the queue's and posts an SDL
/// event when work arrives from another thread (a reply, a push); it does
/// nothing while the SDK is idle.
class SdlMainQueue final {
 public:
  SdlMainQueue() : eventType_(SDL_RegisterEvents(1)), thread_([this] { wait(); }) {}
  ~SdlMainQueue() {
    {
      std::lock_guard lock(mu_);
      quit_ = true;
    }
    cv_.notify_all();
    const std::uint64_t one = 1;
    while (::write(quitFd_, &one, sizeof one) < 0 && errno == EINTR) {
    }
    thread_.join();
    ::close(quitFd_);
  }
  SdlMainQueue(const SdlMainQueue&) = delete;
  SdlMainQueue& operator=(const SdlMainQueue&) = delete;

  /// SDL_WaitEvent for the host: runs the SDK's tasks and timers while it
  /// waits, and returns the next event that is the host's. False on SDL's
  /// error, as SDL_WaitEvent.
  bool waitEvent(SDL_Event& event) {
    auto& loop = platform::mainRunLoop();
    for (;;) {
      loop.drainOnce();
      drained();
      int timeoutMs = -1;
      if (auto next = loop.timeUntilNextTimer()) {
        timeoutMs = static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(*next).count());
      }
      const int got =
          timeoutMs < 0 ? SDL_WaitEvent(&event) : SDL_WaitEventTimeout(&event, timeoutMs);
      if (!got) {
        if (timeoutMs < 0) return false;
        continue;  // a timer fell due
      }
      if (event.type != eventType_) return true;
    }
  }

 private:
  void drained() {
    {
      std::lock_guard lock(mu_);
      drained_ = true;
    }
    cv_.notify_all();
  }

  void wait() {
    const int queueFd = platform::mainRunLoop().wakeFileDescriptor();
    for (;;) {
      pollfd fds[2] = {{queueFd, POLLIN, 0}, {quitFd_, POLLIN, 0}};
      if (::poll(fds, 2, -1) < 0 && errno != EINTR) return;
      if (fds[1].revents) return;
      if (!fds[0].revents) continue;
      std::unique_lock lock(mu_);
      drained_ = false;
      SDL_Event wake{};
      wake.type = eventType_;
      SDL_PushEvent(&wake);
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

/// Shows the SDK's banner in an SDL window drawn with an SDL_Renderer: it
/// keeps the SDK's layer in a texture, forwards the mouse, the keys, the
/// window's focus, size and place on the screen, and asks the host to redraw
/// (an SDL_WINDOWEVENT_EXPOSED event for the window) when the banner changed.
class SdlBanner final {
 public:
  /// Make it before the SDK's first call, so the banner takes the window's width.
  SdlBanner(SDL_Window* window, SDL_Renderer* renderer)
      : window_(window), renderer_(renderer), host_(pointSize(window), scaleOf(window, renderer)) {
    makeLayer();
    host_.setRepaintCallback([this] {
      SDL_Event expose{};
      expose.type = SDL_WINDOWEVENT;
      expose.window.windowID = SDL_GetWindowID(window_);
      expose.window.event = SDL_WINDOWEVENT_EXPOSED;
      SDL_PushEvent(&expose);
    });
    // SDL's window position is its content's top-left in screen pixels on X11.
    host_.setScreenOriginCallback([this] {
      int x = 0, y = 0;
      SDL_GetWindowPosition(window_, &x, &y);
      return platform::Point{static_cast<double>(x), static_cast<double>(y)};
    });
  }
  ~SdlBanner() {
    host_.setRepaintCallback(nullptr);
    host_.setScreenOriginCallback(nullptr);
    if (texture_) SDL_DestroyTexture(texture_);
  }
  SdlBanner(const SdlBanner&) = delete;
  SdlBanner& operator=(const SdlBanner&) = delete;

  /// Hands the SDK the events that are its own: mouse events, keys, focus
  /// and size changes of the window. True when the SDK took the event (a
  /// press on the banner, a key while keyboard focus is in it, the text such
  /// a key typed): the host must not act on it. Focus and size changes are
  /// reported and passed on.
  bool handleEvent(const SDL_Event& event) {
    // Mouse coordinates come in window units, which are the SDK's points.
    switch (event.type) {
      case SDL_KEYDOWN:
        // SDL follows a key with the text it types: that text goes with the key.
        swallowText_ = taken(host_.keyDown(keyOf(event.key.keysym.sym),
                                           modifiersOf(event.key.keysym.mod)));
        return swallowText_;
      case SDL_KEYUP:
        return taken(host_.keyUp(keyOf(event.key.keysym.sym), modifiersOf(event.key.keysym.mod)));
      case SDL_TEXTINPUT:
        return std::exchange(swallowText_, false);
      case SDL_MOUSEBUTTONDOWN:
        return event.button.button == SDL_BUTTON_LEFT &&
               taken(host_.pointerDown({double(event.button.x), double(event.button.y)}));
      case SDL_MOUSEBUTTONUP:
        return event.button.button == SDL_BUTTON_LEFT &&
               taken(host_.pointerUp({double(event.button.x), double(event.button.y)}));
      case SDL_MOUSEMOTION:
        return taken(host_.pointerMove({double(event.motion.x), double(event.motion.y)}));
      case SDL_WINDOWEVENT:
        switch (event.window.event) {
          case SDL_WINDOWEVENT_FOCUS_GAINED:
            host_.setFocused(true);
            break;
          case SDL_WINDOWEVENT_FOCUS_LOST:
            host_.setFocused(false);
            host_.pointerCancel();
            break;
          case SDL_WINDOWEVENT_SIZE_CHANGED:
            host_.setSize(pointSize(window_), scaleOf(window_, renderer_));
            makeLayer();
            break;
          default:
            break;
        }
        return false;
      default:
        return false;
    }
  }

  /// Draws the banner over what the host rendered this frame; call it last,
  /// before SDL_RenderPresent(). Only what changed is uploaded.
  void render() {
    for (const platform::PixelRect& r : host_.paint({layer_.data(), width_, height_, width_ * 4})) {
      upload(r);
    }
    SDL_RenderCopy(renderer_, texture_, nullptr, nullptr);
  }

  /// The SDK's side of the window: accessible elements, keys, focus.
  platform::HostWindow& host() { return host_; }

 private:
  static bool taken(platform::EventAnswer answer) {
    return answer == platform::EventAnswer::kTaken;
  }
  static platform::Key keyOf(SDL_Keycode key) {
    using platform::Key;
    switch (key) {
      case SDLK_TAB: return Key::kTab;
      case SDLK_RETURN: case SDLK_RETURN2: case SDLK_KP_ENTER: return Key::kEnter;
      case SDLK_SPACE: return Key::kSpace;
      case SDLK_ESCAPE: return Key::kEscape;
      case SDLK_UP: return Key::kUp;
      case SDLK_DOWN: return Key::kDown;
      case SDLK_LEFT: return Key::kLeft;
      case SDLK_RIGHT: return Key::kRight;
      case SDLK_HOME: return Key::kHome;
      case SDLK_END: return Key::kEnd;
      case SDLK_F6: return Key::kF6;
      default: return Key::kOther;
    }
  }
  static platform::KeyModifiers modifiersOf(Uint16 mod) {
    return {.shift = (mod & KMOD_SHIFT) != 0, .control = (mod & KMOD_CTRL) != 0,
            .alt = (mod & KMOD_ALT) != 0, .super = (mod & KMOD_GUI) != 0};
  }
  static platform::Size pointSize(SDL_Window* window) {
    int w = 0, h = 0;
    SDL_GetWindowSize(window, &w, &h);
    return {static_cast<double>(w), static_cast<double>(h)};
  }
  // Pixels per point: the renderer's output against the window's size.
  static double scaleOf(SDL_Window* window, SDL_Renderer* renderer) {
    int w = 0, h = 0, pw = 0;
    SDL_GetWindowSize(window, &w, &h);
    if (SDL_GetRendererOutputSize(renderer, &pw, nullptr) != 0 || w <= 0 || pw <= 0) return 1;
    return static_cast<double>(pw) / w;
  }
  void makeLayer() {
    if (texture_) SDL_DestroyTexture(texture_);
    width_ = host_.pixelWidth();
    height_ = host_.pixelHeight();
    layer_.assign(static_cast<std::size_t>(width_) * height_ * 4, 0);
    // The SDK's layer is premultiplied B, G, R, A bytes: SDL's ARGB8888.
    texture_ = SDL_CreateTexture(renderer_, SDL_PIXELFORMAT_ARGB8888, SDL_TEXTUREACCESS_STREAMING,
                                 width_, height_);
    const SDL_BlendMode premultiplied = SDL_ComposeCustomBlendMode(
        SDL_BLENDFACTOR_ONE, SDL_BLENDFACTOR_ONE_MINUS_SRC_ALPHA, SDL_BLENDOPERATION_ADD,
        SDL_BLENDFACTOR_ONE, SDL_BLENDFACTOR_ONE_MINUS_SRC_ALPHA, SDL_BLENDOPERATION_ADD);
    // Some renderers cannot blend premultiplied pixels: those get them
    // un-premultiplied on upload.
    straightAlpha_ = SDL_SetTextureBlendMode(texture_, premultiplied) != 0;
    if (straightAlpha_) SDL_SetTextureBlendMode(texture_, SDL_BLENDMODE_BLEND);
    SDL_UpdateTexture(texture_, nullptr, layer_.data(), width_ * 4);
    host_.invalidate();
  }

  void upload(const platform::PixelRect& r) {
    const SDL_Rect rect{r.x, r.y, r.width, r.height};
    const std::uint8_t* first = &layer_[(static_cast<std::size_t>(r.y) * width_ + r.x) * 4];
    if (!straightAlpha_) {
      SDL_UpdateTexture(texture_, &rect, first, width_ * 4);
      return;
    }
    upload_.resize(static_cast<std::size_t>(r.width) * r.height * 4);
    for (int y = 0; y < r.height; ++y) {
      for (int x = 0; x < r.width * 4; x += 4) {
        const std::uint8_t* p = first + static_cast<std::size_t>(y) * width_ * 4 + x;
        std::uint8_t* q = &upload_[static_cast<std::size_t>(y) * r.width * 4 + x];
        const unsigned a = p[3];
        for (int c = 0; c < 3; ++c) {
          q[c] = a ? static_cast<std::uint8_t>(std::min(255u, p[c] * 255u / a)) : 0;
        }
        q[3] = static_cast<std::uint8_t>(a);
      }
    }
    SDL_UpdateTexture(texture_, &rect, upload_.data(), r.width * 4);
  }

  SDL_Window* const window_;
  SDL_Renderer* const renderer_;
  platform::HostWindow host_;
  std::vector<std::uint8_t> layer_, upload_;
  SDL_Texture* texture_ = nullptr;
  int width_ = 0;
  int height_ = 0;
  bool straightAlpha_ = false;
  bool swallowText_ = false;
};

}  // namespace quorvia::integration
