#pragma once
/// \file
/// What the SDK shows, as a screen reader sees it: the banner and the
/// elements inside it, with their roles, names and places on screen.
/// HostWindow::accessibleElements() lists them; a host that bridges
/// accessibility into its own toolkit, or a test that needs to know where
/// the banner's rows are, reads them there.

#include <cstdint>
#include <string>

#include "quorvia/export.h"
#include "quorvia/platform/Geometry.h"

namespace quorvia::platform {

/// What an element is to assistive technology.
enum class AccessibleRole {
  /// Not an element (a view that only arranges others).
  kNone,
  /// The banner: a message that appeared by itself and holds the others.
  kAlert,
  /// Text to read (the question).
  kLabel,
  /// Something to press (an option, the close control).
  kPushButton,
};

/// One element as it is on screen now (mid-animation included).
struct AccessibleElement {
  AccessibleRole role = AccessibleRole::kNone;
  /// What a screen reader says for it ("Poll", the question, an option's
  /// text, "Close").
  std::string name;
  /// Where it is, in points from the host window's top-left corner.
  Rect frame;
  /// The index of the element that holds it in the same list, or -1.
  int parent = -1;
  /// Whether any of it is inside the window and not clipped away.
  bool showing = false;
  /// Whether keyboard focus can be on it (Tab reaches it). Whatever can be
  /// focused can also be pressed (HostWindow::pressElement()): a screen
  /// reader offers it the action "click".
  bool focusable = false;
  /// Whether keyboard focus is on it now.
  bool focused = false;
  /// The banner while it is expanded: focus stays inside it and the window
  /// behind it takes no input.
  bool modal = false;
  /// The element's identity while it exists (the same in every list it is
  /// in, never given to another element); 0 is no element.
  std::uint64_t id = 0;
};

/// A state of an element that assistive technology follows.
enum class AccessibleState { kShowing, kFocusable, kFocused, kModal };

/// One change between two lists of elements, in the order a copy of the
/// tree takes them: removals first (from the back of each parent's
/// children), then additions (parents before children, in order), then names
/// and states.
struct AccessibilityChange {
  enum class Kind { kAdded, kRemoved, kNameChanged, kStateChanged };
  Kind kind = Kind::kAdded;
  /// The element's id.
  std::uint64_t element = 0;
  /// Added, removed: the id of the element that holds it; 0 for the window.
  std::uint64_t parent = 0;
  /// Added, removed: its place among the parent's children (after an
  /// addition, before a removal).
  int index = 0;
  /// State changes: which state, and its new value.
  AccessibleState state = AccessibleState::kShowing;
  bool value = false;
  bool operator==(const AccessibilityChange&) const = default;
};

/// "role x,y,w,h name" ("alert", "label", "button"; points to one decimal),
/// with " hidden" before the name when it is not showing and " focused"
/// when keyboard focus is on it: for logs and tests.
QUORVIA_EXPORT std::string describe(const AccessibleElement& element);

}  // namespace quorvia::platform
