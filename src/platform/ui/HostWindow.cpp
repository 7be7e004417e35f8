#include "quorvia/platform/HostWindow.h"

#include <bitset>
#include <cmath>
#include <string>

#include "platform/AccessibilityBus.h"
#include "platform/Log.h"
#include "platform/Renderer.h"
#include "platform/TableView.h"
#include "platform/ui/AccessibleTree.h"
#include "platform/ui/KeyboardFocus.h"
#include "platform/ui/ScreenSnapshot.h"
#include "quorvia/platform/Application.h"
#include "quorvia/platform/Environment.h"
#include "quorvia/platform/NotificationCenter.h"
#include "quorvia/platform/RunLoop.h"
#include "platform/Window.h"

namespace quorvia::platform {
namespace {

constexpr double kDefaultWidth = 375;
constexpr double kDefaultHeight = 667;
constexpr double kDefaultScale = 2;
// Beyond this a buffer is a mistake, not a screen: 16384 x 16384 x 4 is 1 GiB.
constexpr double kMaxPixelsPerSide = 16384;
// The slide and the fade are painted at 60 frames per second.
constexpr double kFrameInterval = 1.0 / 60;
// While something moves, a screen reader hears of what appears, goes or
// scrolls into sight this often; where things are it asks when it needs to.
constexpr double kAccessibilityInterval = 1.0 / 30;
constexpr std::size_t kKeyCount = static_cast<std::size_t>(Key::kF6) + 1;

bool finite(Point p) { return std::isfinite(p.x) && std::isfinite(p.y); }

bool validSize(Size size, double scale) {
  return std::isfinite(size.width) && std::isfinite(size.height) && std::isfinite(scale) &&
         size.width > 0 && size.height > 0 && scale > 0 &&
         size.width * scale <= kMaxPixelsPerSide && size.height * scale <= kMaxPixelsPerSide &&
         std::lround(size.width * scale) >= 1 && std::lround(size.height * scale) >= 1;
}

std::string describe(Size size, double scale) {
  return std::to_string(size.width) + " x " + std::to_string(size.height) + " points at scale " +
         std::to_string(scale);
}

// Where `view` is on screen now, in window coordinates.
Rect onScreen(View& view) {
  Rect rect = view.presentationFrame();
  rect.origin = {0, 0};
  for (View* v = &view; v->superview(); v = v->superview().get()) {
    const Rect frame = v->presentationFrame();
    rect.origin.x += frame.x();
    rect.origin.y += frame.y();
  }
  return rect;
}

// What a press on `view` is a press of: the button, the tapped card or the
// row around it, so that a release anywhere on that still counts.
View& pressTarget(View& view) {
  for (View* v = &view; v; v = v->superview().get()) {
    if (v->isControl() || !v->gestureRecognizers().empty() ||
        dynamic_cast<TableViewCell*>(v)) {
      return *v;
    }
  }
  return view;
}

}  // namespace

struct HostWindow::State : std::enable_shared_from_this<HostWindow::State>,
                           AccessibilityBus::Tree {
  std::shared_ptr<Window> window;
  std::unique_ptr<detail::KeyboardFocus> keyboard;
  detail::AccessibleTree tree;
  std::bitset<kKeyCount> keysTaken;  // keys whose down was taken: their up is too
  ScreenOriginCallback screenOriginCallback;
  std::shared_ptr<AccessibilityBus> bus;  // the SDK's own publication, once joined
  bool busAsked = false;
  AccessibilityObserver observer;  // the host's publication instead
  std::vector<AccessibleElement> observed;
  bool accessibilityFramePosted = false;
  RepaintCallback callback;
  detail::ScreenSnapshot painted;
  bool fullRepaint = true;
  bool repaintRequested = false;
  bool checkPosted = false;
  bool framePosted = false;
  bool painting = false;
  int bufferWidth = 0;
  int bufferHeight = 0;
  std::shared_ptr<View> pressed;
  std::optional<bool> focused;

  // Compares the screen with what was painted on the next main-queue turn,
  // so that a burst of changes costs one comparison.
  void postCheck() {
    if (checkPosted) return;
    checkPosted = true;
    dispatch_async([weak = weak_from_this()] {
      if (auto self = weak.lock()) {
        self->checkPosted = false;
        self->check();
      }
    });
  }

  void postFrame() {
    if (framePosted) return;
    framePosted = true;
    dispatch_after(seconds(kFrameInterval), [weak = weak_from_this()] {
      if (auto self = weak.lock()) {
        self->framePosted = false;
        self->check();
      }
    });
  }

  void check() {
    updateAccessibility();
    if (!callback || repaintRequested) return;
    const auto now = detail::ScreenSnapshot::take(*window);
    if (fullRepaint || !now.damageSince(painted).empty()) {
      repaintRequested = true;
      // A copy: the host may replace the callback from inside it.
      auto call = callback;
      call();
    } else if (now.animating) {
      // Still off screen (a banner above the top edge): look again next frame.
      postFrame();
    }
  }

  bool overContent(Point point) {
    auto hit = window->hitTest(point);
    return hit && hit != window;
  }

  // Tells the accessibility bus what it shows now. The bus is joined at the
  // first banner, not at start-up: most runs of a host never show one.
  void updateAccessibility() {
    if (!bus && busAsked && !observer) return;
    auto snapshot = tree.collect(*window, *keyboard);
    if (!bus && !busAsked && !observer && !snapshot.nodes.empty()) {
      busAsked = true;
      bus = environment().accessibilityBus();
      if (bus) bus->publish(weak_from_this());
    }
    std::vector<AccessibleElement> elements;
    elements.reserve(snapshot.nodes.size());
    for (auto& node : snapshot.nodes) elements.push_back(std::move(node.element));
    if (bus) bus->update(elements);
    if (observer) {
      auto changes = changesBetween(observed, elements);
      if (!changes.empty()) {
        observed = elements;
        auto call = observer;  // a copy: the host may replace it from inside
        call(elements, changes);
      }
    }
    // A banner sliding in from above the window comes into sight by itself.
    if (snapshot.animating && !accessibilityFramePosted) {
      accessibilityFramePosted = true;
      dispatch_after(seconds(kAccessibilityInterval), [weak = weak_from_this()] {
        if (auto self = weak.lock()) {
          self->accessibilityFramePosted = false;
          self->updateAccessibility();
        }
      });
    }
  }

  // The view of the element `id` as listed now, or null.
  std::shared_ptr<View> viewOf(std::uint64_t id) {
    if (id == 0) return nullptr;
    for (auto& node : tree.collect(*window, *keyboard).nodes) {
      if (node.element.id == id) return node.element.focusable ? node.view : nullptr;
    }
    return nullptr;
  }

  // AccessibilityBus::Tree
  std::vector<AccessibleElement> accessibleElements() override {
    return tree.elements(*window, *keyboard);
  }
  bool pressElement(std::uint64_t id) override {
    auto view = viewOf(id);
    if (!view) return false;
    window->press(view);
    keyboard->sync();
    postCheck();
    return true;
  }
  bool focusElement(std::uint64_t id) override {
    auto view = viewOf(id);
    if (!view || !keyboard->focus(*view)) return false;
    updateAccessibility();
    return true;
  }
  Point screenOrigin() override {
    const Point origin = screenOriginCallback ? screenOriginCallback() : Point{};
    return finite(origin) ? origin : Point{};
  }
  double scale() override { return window->scale(); }
};

namespace {
// The one embedded window's change handler: the view tree's hook is a plain function.
struct CurrentHost {
  const void* owner = nullptr;
  std::function<void()> changed;
};
CurrentHost& current() {
  static CurrentHost host;
  return host;
}
void screenChanged() {
  if (current().changed) current().changed();
}
}  // namespace

HostWindow::HostWindow(Size size, double scale) : state_(std::make_shared<State>()) {
  if (!validSize(size, scale)) {
    debugLog("HostWindow: ignoring a window of " + describe(size, scale) +
             "; using 375 x 667 points at scale 2");
    size = {kDefaultWidth, kDefaultHeight};
    scale = kDefaultScale;
  }
  auto& app = Application::sharedApplication();
  state_->window = app.keyWindow();
  if (!state_->window) {
    state_->window = View::make<Window>(Rect{{0, 0}, size});
    app.setKeyWindow(state_->window);
  }
  state_->keyboard = std::make_unique<detail::KeyboardFocus>(*state_->window);
  if (current().owner) debugLog("HostWindow: a second host window replaces the first");
  current().owner = state_.get();
  current().changed = [weak = std::weak_ptr<State>(state_)] {
    if (auto state = weak.lock(); state && !state->painting) state->postCheck();
  };
  detail::setScreenChangeObserver(&screenChanged);
  setSize(size, scale);
}

HostWindow::~HostWindow() {
  if (current().owner == state_.get()) {
    detail::setScreenChangeObserver(nullptr);
    current() = CurrentHost{};
  }
}

void HostWindow::setSize(Size size, double scale) {
  if (!validSize(size, scale)) {
    debugLog("HostWindow: ignoring a window of " + describe(size, scale));
    return;
  }
  state_->window->setScale(scale);
  state_->window->setFrame(Rect{{0, 0}, size});
  state_->fullRepaint = true;
  state_->postCheck();
}

Size HostWindow::size() const { return state_->window->bounds().size; }
double HostWindow::scale() const { return state_->window->scale(); }
int HostWindow::pixelWidth() const { return static_cast<int>(std::lround(size().width * scale())); }
int HostWindow::pixelHeight() const {
  return static_cast<int>(std::lround(size().height * scale()));
}

void HostWindow::setRepaintCallback(RepaintCallback callback) {
  state_->callback = std::move(callback);
  state_->repaintRequested = false;
  state_->postCheck();
}

bool HostWindow::needsPaint() const {
  if (state_->fullRepaint) return true;
  return !detail::ScreenSnapshot::take(*state_->window).damageSince(state_->painted).empty();
}

std::vector<PixelRect> HostWindow::paint(const PixelBuffer& buffer) {
  if (!buffer.pixels || buffer.width <= 0 || buffer.height <= 0 ||
      buffer.width > kMaxPixelsPerSide || buffer.height > kMaxPixelsPerSide ||
      buffer.stride < buffer.width * 4 || buffer.stride % 4 != 0) {
    debugLog("HostWindow: not painting into a buffer of " + std::to_string(buffer.width) + " x " +
             std::to_string(buffer.height) + " pixels with a stride of " +
             std::to_string(buffer.stride) + " bytes");
    return {};
  }
  State& s = *state_;
  s.painting = true;
  auto now = detail::ScreenSnapshot::take(*s.window);
  s.painting = false;
  const bool animating = now.animating;
  std::vector<PixelRect> damage;
  if (s.fullRepaint || buffer.width != s.bufferWidth || buffer.height != s.bufferHeight) {
    damage.push_back(PixelRect{0, 0, buffer.width, buffer.height});
  } else {
    const double scale = s.window->scale();
    for (const Rect& r : now.damageSince(s.painted)) {
      // Whole pixels that hold any part of the rectangle: edges are antialiased.
      const int x0 = std::max(0, static_cast<int>(std::floor(r.x() * scale)));
      const int y0 = std::max(0, static_cast<int>(std::floor(r.y() * scale)));
      const int x1 = std::min(buffer.width, static_cast<int>(std::ceil(r.maxX() * scale)));
      const int y1 = std::min(buffer.height, static_cast<int>(std::ceil(r.maxY() * scale)));
      if (x1 > x0 && y1 > y0) damage.push_back(PixelRect{x0, y0, x1 - x0, y1 - y0});
    }
  }
  s.repaintRequested = false;
  if (!damage.empty()) {
    s.painting = true;
    Renderer::paint(*s.window, buffer, damage);
    s.painting = false;
    s.painted = std::move(now);
    s.fullRepaint = false;
    s.bufferWidth = buffer.width;
    s.bufferHeight = buffer.height;
  }
  if (animating) s.postFrame();
  return damage;
}

void HostWindow::invalidate() {
  state_->fullRepaint = true;
  state_->postCheck();
}

PointerAnswer HostWindow::pointerDown(Point point) {
  State& s = *state_;
  if (!finite(point)) {
    debugLog("HostWindow: ignoring a pointer press at a point that is not finite");
    return PointerAnswer::kPassed;
  }
  // A press whose release never came ends before the next begins.
  if (s.pressed) pointerCancel();
  const bool taken = s.overContent(point);
  s.keyboard->pointerPressed(taken);
  if (!taken) {
    s.updateAccessibility();
    return PointerAnswer::kPassed;
  }
  s.pressed = s.window->touchDown(point);
  s.postCheck();  // an option row turns grey under the finger
  return PointerAnswer::kTaken;
}

PointerAnswer HostWindow::pointerMove(Point point) {
  State& s = *state_;
  if (s.pressed) return PointerAnswer::kTaken;
  if (!finite(point)) return PointerAnswer::kPassed;
  return s.overContent(point) ? PointerAnswer::kTaken : PointerAnswer::kPassed;
}

PointerAnswer HostWindow::pointerUp(Point point) {
  State& s = *state_;
  if (!s.pressed) {
    return finite(point) && s.overContent(point) ? PointerAnswer::kTaken : PointerAnswer::kPassed;
  }
  auto pressed = std::move(s.pressed);
  s.pressed.reset();
  if (!finite(point)) {
    debugLog("HostWindow: a pointer release at a point that is not finite cancels the press");
    s.window->touchCancel();
  } else if (!onScreen(pressTarget(*pressed)).contains(point)) {
    // Released away from what was pressed: like a finger sliding off a row.
    s.window->touchCancel();
  } else {
    s.window->touchUp();
  }
  s.postCheck();
  return PointerAnswer::kTaken;
}

PointerAnswer HostWindow::pointerCancel() {
  State& s = *state_;
  if (!s.pressed) return PointerAnswer::kPassed;
  s.pressed.reset();
  s.window->touchCancel();
  s.postCheck();
  return PointerAnswer::kTaken;
}

EventAnswer HostWindow::keyDown(Key key, KeyModifiers modifiers) {
  State& s = *state_;
  auto index = static_cast<std::size_t>(key);
  if (index >= kKeyCount) {
    // Not one of ours (a cast from a toolkit's code): a key like any other.
    key = Key::kOther;
    index = 0;
  }
  const EventAnswer answer = s.keyboard->keyDown(key, modifiers);
  s.keysTaken[index] = answer == EventAnswer::kTaken;
  s.updateAccessibility();
  return answer;
}

EventAnswer HostWindow::keyUp(Key key, KeyModifiers) {
  State& s = *state_;
  auto index = static_cast<std::size_t>(key);
  if (index >= kKeyCount) index = 0;
  if (!s.keysTaken[index]) return EventAnswer::kPassed;
  s.keysTaken[index] = false;
  return EventAnswer::kTaken;
}

bool HostWindow::focusBanner() {
  const bool entered = state_->keyboard->enter();
  state_->updateAccessibility();
  return entered;
}

bool HostWindow::hasKeyboardFocus() const {
  state_->keyboard->sync();
  return state_->keyboard->inside();
}

bool HostWindow::pressElement(std::uint64_t id) { return state_->pressElement(id); }

bool HostWindow::focusElement(std::uint64_t id) { return state_->focusElement(id); }

void HostWindow::setAccessibilityObserver(AccessibilityObserver observer) {
  State& s = *state_;
  s.observer = std::move(observer);
  s.observed.clear();
  if (s.observer) {
    // The host's toolkit publishes the banner: the SDK's own application goes.
    s.bus.reset();
    s.busAsked = true;
  }
  s.updateAccessibility();
}

void HostWindow::setScreenOriginCallback(ScreenOriginCallback origin) {
  state_->screenOriginCallback = std::move(origin);
}

void HostWindow::setFocused(bool focused) {
  if (state_->focused == focused) return;
  state_->focused = focused;
  // The application's activity decides whether a push shows a desktop
  // notification; it posts the became-active / resign-active notifications.
  dispatch_async([focused] { Application::sharedApplication().setActive(focused); });
}

std::vector<AccessibleElement> HostWindow::accessibleElements() const {
  return state_->accessibleElements();
}

bool HostWindow::isAnimating() const {
  return detail::ScreenSnapshot::take(*state_->window).animating;
}

std::shared_ptr<Window> HostWindow::window() const { return state_->window; }

}  // namespace quorvia::platform
