#pragma once
/// \file
/// The key window (UIWindow) the banner is shown in: a host sizes it to its
/// own window and forwards touches to it. The root of a view tree, with the
/// scale of the screen it is on. Main thread.

#include <memory>

#include "quorvia/export.h"
#include "platform/View.h"

namespace quorvia::platform {

class QUORVIA_EXPORT Window final : public View {
 public:
  /// Pixels per point of the screen (2 on the default window).
  double scale() const { return scale_; }
  void setScale(double scale) { scale_ = scale; }

  /// Delivers a touch that begins at `point` (window coordinates) to the
  /// view under it. Returns that view, which stays the touch's view.
  std::shared_ptr<View> touchDown(Point point);
  /// Ends the touch in progress: a control under it gets its action, else a
  /// tap recogniser of the view or its ancestors fires (the view's touches
  /// are then cancelled), else the view gets touchesEnded and a table row
  /// under it is selected.
  void touchUp();
  /// Cancels the touch in progress.
  void touchCancel();
  /// touchDown then touchUp at `point`.
  void tap(Point point);
  /// Ends a touch on `view` at its centre as touchUp() ends one, without the
  /// touch's beginning: what a tap on it does, for the keyboard and for a
  /// screen reader's "click".
  void press(const std::shared_ptr<View>& view);

 private:
  void endTouch(const std::shared_ptr<View>& view, Point point);

  double scale_ = 1;
  std::shared_ptr<View> touchView_;
  Point touchPoint_;
};

/// The application's key window, or null while the host has set none (a
/// HostWindow sets one). Without one a banner is shown in no window at all.
QUORVIA_EXPORT std::shared_ptr<Window> keyWindow();

}  // namespace quorvia::platform
