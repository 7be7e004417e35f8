#pragma once
/// \file
/// The retained view tree (UIView), which a host reaches through its key
/// window (Window.h), in points: frame, bounds, alpha, hidden,
/// tag, background colour, ordered subviews, autoresizing, a layer with a
/// shape mask, tap gesture recognisers and touch handling.
///
/// Threading: views belong to the main thread; no member may be called from
/// another thread.

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Layer.h"
#include "quorvia/export.h"
#include "quorvia/platform/AccessibleElement.h"
#include "quorvia/platform/Geometry.h"

namespace quorvia::platform {

class KeyboardPane;
class View;
class Window;

/// Autoresizing bits (UIViewAutoresizing).
enum AutoresizingMask : unsigned {
  kAutoresizingNone = 0,
  kAutoresizingFlexibleLeftMargin = 1,
  kAutoresizingFlexibleWidth = 2,
  kAutoresizingFlexibleRightMargin = 4,
  kAutoresizingFlexibleTopMargin = 8,
  kAutoresizingFlexibleHeight = 16,
  kAutoresizingFlexibleBottomMargin = 32,
};

/// One touch, located in the window's coordinates.
struct Touch {
  Point locationInWindow;
};
using TouchSet = std::vector<Touch>;

/// Pins of a view inside its superview, as a layout file states them: each
/// side that is set keeps that distance to the superview's edge; width or
/// height, when set, are fixed. A view with neither height nor both vertical
/// pins takes the height of its content.
struct LayoutPins {
  std::optional<double> left, right, top, bottom, width, height;
};

/// A tap recogniser (UITapGestureRecognizer): when a touch that began in its
/// view ends without being taken by a control, it sends `action` to `target`
/// with itself as sender. Holds its target weakly, like the platform.
class QUORVIA_EXPORT TapGestureRecognizer final
    : public std::enable_shared_from_this<TapGestureRecognizer> {
 public:
  /// initWithTarget:action:.
  TapGestureRecognizer(std::weak_ptr<View> target, std::string action);
  /// The view it is attached to, or null.
  std::shared_ptr<View> view() const { return view_.lock(); }
  /// Sends the action to the target, if it is still alive.
  void recognize();

 private:
  friend class View;
  std::weak_ptr<View> target_;
  std::string action_;
  std::weak_ptr<View> view_;
};

/// A view. Made with make<T>() (views are shared objects: the tree, timers
/// and animations hold them); the superview holds its subviews strongly and
/// is held weakly by them.
class QUORVIA_EXPORT View : public std::enable_shared_from_this<View> {
 public:
  View() = default;
  virtual ~View();
  View(const View&) = delete;
  View& operator=(const View&) = delete;

  /// initWithFrame: for any view class.
  template <typename T = View, typename... Args>
  static std::shared_ptr<T> make(Rect frame, Args&&... args) {
    auto view = std::make_shared<T>(std::forward<Args>(args)...);
    view->setFrame(frame);
    return view;
  }

  // Geometry. Inside an animation block frame and alpha changes animate.
  Rect frame() const { return frame_; }
  void setFrame(Rect frame);
  /// The view's own coordinates: origin 0,0 and the frame's size.
  Rect bounds() const { return Rect{{0, 0}, frame_.size}; }
  /// The frame as it is on screen now, during an animation between the
  /// values before and after it.
  Rect presentationFrame() const;
  double alpha() const { return alpha_; }
  void setAlpha(double alpha);
  double presentationAlpha() const;
  bool isHidden() const { return hidden_; }
  void setHidden(bool hidden) { hidden_ = hidden; }

  int tag() const { return tag_; }
  void setTag(int tag) { tag_ = tag; }
  /// This view or the first descendant (depth first, in subview order) with `tag`.
  std::shared_ptr<View> viewWithTag(int tag);

  const Color& backgroundColor() const { return backgroundColor_; }
  void setBackgroundColor(Color color) { backgroundColor_ = color; }
  unsigned autoresizingMask() const { return autoresizingMask_; }
  void setAutoresizingMask(unsigned mask) { autoresizingMask_ = mask; }
  Layer& layer() { return layer_; }
  const Layer& layer() const { return layer_; }

  // Hierarchy.
  std::shared_ptr<View> superview() const { return superview_.lock(); }
  /// Back to front.
  const std::vector<std::shared_ptr<View>>& subviews() const { return subviews_; }
  /// Adds `view` on top of the others, first taking it out of its old superview.
  void addSubview(const std::shared_ptr<View>& view);
  void removeFromSuperview();
  /// The window this view is in, or null.
  std::shared_ptr<Window> window();

  // Layout.
  /// Pins set by a layout file; a view with pins is placed by its superview.
  const std::optional<LayoutPins>& layoutPins() const { return pins_; }
  void setLayoutPins(std::optional<LayoutPins> pins) { pins_ = std::move(pins); }
  /// Places the subviews that have pins in the current bounds. Runs when
  /// the size changes; table views lay out their rows here.
  virtual void layoutSubviews();
  /// The height the view's content needs at `width` (labels: their text;
  /// other views: the tallest pinned subview with its margins).
  virtual double contentHeightForWidth(double width);
  /// Marks the view for a layout pass, which runs on the next main-queue turn
  /// or at the next layoutIfNeeded().
  void setNeedsLayout();
  /// Runs pending layout passes of this view and its subviews now.
  void layoutIfNeeded();

  // Gestures and touches.
  void addGestureRecognizer(const std::shared_ptr<TapGestureRecognizer>& recognizer);
  const std::vector<std::shared_ptr<TapGestureRecognizer>>& gestureRecognizers() const {
    return recognizers_;
  }
  bool isUserInteractionEnabled() const { return userInteractionEnabled_; }
  void setUserInteractionEnabled(bool enabled) { userInteractionEnabled_ = enabled; }
  /// The deepest visible, interactive view under `point` (in this view's
  /// coordinates), front-most first, or null.
  std::shared_ptr<View> hitTest(Point point);
  /// Touch phases. The default passes them to the superview (the next responder).
  virtual void touchesBegan(const TouchSet& touches);
  virtual void touchesEnded(const TouchSet& touches);
  virtual void touchesCancelled(const TouchSet& touches);
  /// Whether the view takes its own taps (controls do), so that recognisers
  /// of the views around it do not.
  virtual bool isControl() const { return false; }

  /// Target-action dispatch: runs the action named `selector` (e.g.
  /// "closeButtonPressed:"). Returns false when the view has no such action.
  virtual bool performAction(std::string_view selector, const std::shared_ptr<void>& sender);
  /// Connects a layout file's outlet; false when the view has no such outlet.
  virtual bool setOutlet(std::string_view name, const std::shared_ptr<View>& view);
  /// Runs once after the view was loaded from a layout file and connected.
  virtual void awakeFromNib() {}

  /// The pane keyboard focus can enter as a whole when this view is one (the
  /// banner); null for every other view.
  virtual KeyboardPane* keyboardPane() { return nullptr; }

  // Accessibility (UIAccessibility). A view with a role is an element of the
  // accessibility tree; an alert holds the elements inside it, any other
  // role stands for everything inside it (a row is one button, not a button
  // and its label).
  AccessibleRole accessibilityRole() const { return accessibilityRole_; }
  void setAccessibilityRole(AccessibleRole role) { accessibilityRole_ = role; }
  /// The element's name; nil: the view's own text (labels and buttons).
  virtual std::optional<std::string> accessibilityLabel() const { return accessibilityLabel_; }
  void setAccessibilityLabel(std::optional<std::string> label) {
    accessibilityLabel_ = std::move(label);
  }

 private:
  void applyAutoresizing(Size oldSize);
  Rect frame_;
  double alpha_ = 1;
  bool hidden_ = false;
  int tag_ = 0;
  Color backgroundColor_ = Color::clearColor();
  unsigned autoresizingMask_ = kAutoresizingNone;
  bool userInteractionEnabled_ = true;
  bool needsLayout_ = false;
  AccessibleRole accessibilityRole_ = AccessibleRole::kNone;
  std::optional<std::string> accessibilityLabel_;
  Layer layer_;
  std::optional<LayoutPins> pins_;
  std::weak_ptr<View> superview_;
  std::vector<std::shared_ptr<View>> subviews_;
  std::vector<std::shared_ptr<TapGestureRecognizer>> recognizers_;

  friend class Animator;
  struct Animation {
    Rect fromFrame;
    double fromAlpha = 1;
    double start = 0;     // seconds on the main-queue clock
    double duration = 0;
  };
  std::optional<Animation> frameAnimation_;
  std::optional<Animation> alphaAnimation_;
};

}  // namespace quorvia::platform
