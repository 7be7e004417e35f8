#pragma once
/// \file
/// Showing the SDK's banner in a desktop application's own window. The host
/// owns the window, its pixels and its event loop; the SDK is a transparent
/// layer over the host's content, like an off-screen browser view:
///
///   1. Make one HostWindow at start-up, before the SDK starts, with the
///      window's size in points and its scale; call setSize() when the window
///      resizes and setFocused() when it gains or loses focus.
///   2. Give it a repaint callback; when it fires, call paint() with the
///      host's pixel buffer and composite that buffer over the host's content.
///   3. Forward pointer and key events; when an answer is kPassed, handle the
///      event yourself.
///   4. Drive platform::mainRunLoop() from the host's loop (RunLoop.h:
///      wakeFileDescriptor(), timeUntilNextTimer(), drainOnce()).
///   5. Optionally, say where the window is on the screen
///      (setScreenOriginCallback()), so that a screen reader finds the banner.
///
/// A keyboard user reaches the banner with F6 and a screen reader finds it on
/// the desktop's accessibility bus (AT-SPI), where the SDK publishes it as an
/// application of its own from the first banner on, unless the host's toolkit
/// shows it in its own tree (setAccessibilityObserver()). The guide's
/// "Keyboard and screen readers" has the key table.
///
/// Threading: every member runs on the main thread, the one that drives
/// platform::mainRunLoop(); the repaint callback is called there too.

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "quorvia/export.h"
#include "quorvia/platform/AccessibleElement.h"
#include "quorvia/platform/Geometry.h"

namespace quorvia::platform {

class Window;

/// A rectangle in the host's buffer, in whole pixels.
struct PixelRect {
  int x = 0;
  int y = 0;
  int width = 0;
  int height = 0;
  bool operator==(const PixelRect&) const = default;
};

/// The host's pixel buffer. Pixels are premultiplied by alpha, 4 bytes each,
/// in the byte order B, G, R, A in memory (a native 32-bit 0xAARRGGBB word on
/// a little-endian machine: Cairo's ARGB32, SDL's ARGB8888, GL's BGRA with
/// UNSIGNED_INT_8_8_8_8_REV). Rows run from the top, `stride` bytes apart.
/// The buffer stays the host's; the SDK writes into it only during paint().
struct PixelBuffer {
  std::uint8_t* pixels = nullptr;
  int width = 0;
  int height = 0;
  /// Bytes from one row to the next: at least width * 4, a multiple of 4.
  int stride = 0;
};

/// Whether the SDK took an input event or left it to the host.
enum class EventAnswer {
  /// The event was the banner's (a press on it or its backdrop, a key while
  /// keyboard focus is in it): the host must not act on it.
  kTaken,
  /// The event is the host's: the host handles it as if the SDK were not there.
  kPassed,
};
/// Pointer events are answered like every other event.
using PointerAnswer = EventAnswer;

/// A key, named for what it is rather than by a toolkit's code. The banner
/// uses only these; a host reports every other key as kOther (it is passed
/// unless an expanded banner holds the keyboard).
enum class Key {
  kOther,
  kTab,
  /// Return and the keypad's Enter.
  kEnter,
  kSpace,
  kEscape,
  kUp,
  kDown,
  kLeft,
  kRight,
  kHome,
  kEnd,
  /// Moves keyboard focus between the panes of a window, as desktops do:
  /// into the banner and out of it.
  kF6,
};

/// The modifier keys held with a key. A Shift+Tab that a toolkit reports as
/// a key of its own (ISO_Left_Tab, Backtab) is kTab with shift.
struct KeyModifiers {
  bool shift = false;
  bool control = false;
  bool alt = false;
  /// The logo (Windows, Command) key.
  bool super = false;
};

/// The key window of the SDK, embedded in a host window. One per process.
class QUORVIA_EXPORT HostWindow final {
 public:
  /// Called on the main thread when something the SDK draws changed (a banner
  /// shown, hidden or touched, an animation frame due): the host should call
  /// paint() soon. Called at most once between two paint() calls.
  using RepaintCallback = std::function<void()>;

  /// Makes the key window `size` points large at `scale` pixels per point.
  /// Make it before the SDK's first call, so the banner takes this window's
  /// width. A size or scale that is not finite and positive, or a window
  /// larger than 16384 pixels on a side, is logged and replaced by the
  /// platform's default (375 x 667 points at scale 2).
  HostWindow(Size size, double scale);
  /// Detaches the repaint callback. The key window stays.
  ~HostWindow();
  HostWindow(const HostWindow&) = delete;
  HostWindow& operator=(const HostWindow&) = delete;

  /// The host's window changed size or moved to a screen of another scale.
  /// The whole buffer is repainted next. Bad values are logged and ignored.
  void setSize(Size size, double scale);
  /// The key window's size in points, as last set.
  Size size() const;
  /// Pixels per point, as last set.
  double scale() const;
  /// The buffer width paint() expects: size().width * scale(), rounded.
  int pixelWidth() const;
  /// The buffer height paint() expects: size().height * scale(), rounded.
  int pixelHeight() const;

  /// Installs the host's repaint callback (null removes it). It is called
  /// once at once when something is waiting to be painted.
  void setRepaintCallback(RepaintCallback callback);
  /// Whether paint() would draw anything now.
  bool needsPaint() const;
  /// Draws what changed since the last paint() into `buffer` and returns the
  /// damaged rectangles, in pixels, clipped to the buffer; empty when nothing
  /// changed, and then no pixel was touched. Outside the damage the buffer
  /// must still hold what earlier paints left there; a buffer of a new size
  /// (or a call of invalidate()) is painted whole. Where the SDK draws nothing
  /// the pixels are transparent (all four bytes 0). A buffer with no pixels
  /// or a bad stride is logged and left alone.
  std::vector<PixelRect> paint(const PixelBuffer& buffer);
  /// Makes the next paint() draw the whole buffer (e.g. after the host lost
  /// its copy of the pixels).
  void invalidate();

  /// Pointer events, in points from the window's top-left corner. A press
  /// that begins on the banner or its backdrop is the SDK's until it ends:
  /// moves, the release and a cancel of that press are taken. Hit testing
  /// uses what is on screen now, mid-animation included. A release over
  /// another view than the one pressed cancels the press. Coordinates that
  /// are not finite are logged and passed.
  PointerAnswer pointerDown(Point point);
  PointerAnswer pointerMove(Point point);
  PointerAnswer pointerUp(Point point);
  /// The system took the pointer away (e.g. the window lost it).
  PointerAnswer pointerCancel();

  /// Key events. While no banner is shown every key is passed, and the SDK
  /// never takes typing from the host's widgets: keys are the banner's only
  /// while keyboard focus is in it, which it enters by F6 (or focusBanner())
  /// and leaves by F6, by a press on the host's content, or when the banner
  /// goes. Inside, Tab and Shift+Tab, the arrows, Home and End move focus
  /// among the banner's close control, its card and its options; Enter or
  /// Space does what a tap there does; Escape does what the close control
  /// does; any other key is passed. An expanded banner is modal: keyboard
  /// focus is in it until it goes, and every key is its own. A key up is
  /// taken when its key down was.
  EventAnswer keyDown(Key key, KeyModifiers modifiers = {});
  EventAnswer keyUp(Key key, KeyModifiers modifiers = {});
  /// Moves keyboard focus into the banner, as F6 does; false when no banner
  /// is shown. For hosts that offer their own way to reach it.
  bool focusBanner();
  /// Whether keyboard focus is in the banner now.
  bool hasKeyboardFocus() const;

  /// The host's window gained or lost focus: the application becomes active
  /// (the SDK then fetches pending polls) or resigns active, through
  /// Application::setActive() on the main queue; while it is not active, a
  /// pushed poll also shows as a desktop notification. A repeated report of
  /// the same state changes nothing.
  void setFocused(bool focused);

  /// The banner and its elements as they are on screen now, parents before
  /// their children; empty while no banner is in sight. A banner that slid
  /// out of the window is not listed.
  std::vector<AccessibleElement> accessibleElements() const;
  /// Whether something the SDK draws is moving now (a banner sliding, its
  /// options opening, the backdrop fading): the elements' frames are still
  /// changing.
  bool isAnimating() const;
  /// Does what a tap on the element with `id` does (an option's reply, the
  /// card's expansion, the close control's dismissal), through the same
  /// path; false when no such element is listed now or it cannot be pressed.
  bool pressElement(std::uint64_t id);
  /// Moves keyboard focus to the element with `id` (a screen reader's
  /// request); false when it is not focusable or not listed now.
  bool focusElement(std::uint64_t id);

  /// A host whose toolkit publishes its own accessibility tree (Qt's
  /// QAccessible) shows the banner there: it sets an observer, which hears
  /// after each change the elements as they are now and what changed since it
  /// last heard, on the main thread. Once one is set, the SDK does not
  /// publish the banner as an application of its own on the accessibility
  /// bus. Null removes it.
  using AccessibilityObserver = std::function<void(const std::vector<AccessibleElement>& now,
                                                   const std::vector<AccessibilityChange>& changes)>;
  void setAccessibilityObserver(AccessibilityObserver observer);

  /// Where the window's top-left corner is on the screen, in the screen's
  /// pixels (on X11: the root window's coordinates). Called on the main
  /// thread whenever a screen reader asks where an element is, so that a
  /// window that moved is always found where it is now. Without one (or
  /// with null) the window counts as being at the screen's top-left corner.
  using ScreenOriginCallback = std::function<Point()>;
  void setScreenOriginCallback(ScreenOriginCallback origin);

  /// The key window; internal (the view tree is not part of a host's API).
  std::shared_ptr<Window> window() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace quorvia::platform
