#pragma once
/// \file
/// Publishing what the SDK shows to the desktop's accessibility bus, where
/// screen readers find it. The desktop's bus is AT-SPI (at-spi2-core); tests
/// install a fake through the environment. Main thread unless said otherwise.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "quorvia/platform/AccessibleElement.h"
#include "quorvia/platform/Geometry.h"

namespace quorvia::platform {

/// What changed from `before` to `now`, two lists as
/// HostWindow::accessibleElements() gives them.
std::vector<AccessibilityChange> changesBetween(const std::vector<AccessibleElement>& before,
                                                const std::vector<AccessibleElement>& now);

class AccessibilityBus {
 public:
  /// The window whose elements are published; the bus asks it on the main
  /// queue.
  class Tree {
   public:
    virtual ~Tree() = default;
    /// The elements now, parents before their children.
    virtual std::vector<AccessibleElement> accessibleElements() = 0;
    /// A screen reader's "click" and its request for focus.
    virtual bool pressElement(std::uint64_t id) = 0;
    virtual bool focusElement(std::uint64_t id) = 0;
    /// Where the window's top-left corner is on the screen, in pixels.
    virtual Point screenOrigin() = 0;
    /// Pixels per point.
    virtual double scale() = 0;
  };

  AccessibilityBus() = default;
  AccessibilityBus(const AccessibilityBus&) = delete;
  AccessibilityBus& operator=(const AccessibilityBus&) = delete;
  virtual ~AccessibilityBus() = default;

  /// Publishes `tree` (held weakly) from now on; the first call joins the
  /// bus. A bus that cannot be reached says so once in the log and does
  /// nothing more.
  virtual void publish(std::weak_ptr<Tree> tree) = 0;
  /// The tree's elements are now `now`: listeners hear what changed since
  /// the bus last knew them (nothing before the bus was joined).
  virtual void update(const std::vector<AccessibleElement>& now) = 0;
};

/// The desktop's bus: AT-SPI, joined through GDBus on a thread of its own,
/// where the SDK is an application named `appName`.
std::shared_ptr<AccessibilityBus> makeAtspiAccessibilityBus(std::string appName);

}  // namespace quorvia::platform
