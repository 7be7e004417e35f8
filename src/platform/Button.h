#pragma once
/// \file
/// A button (UIButton) with a title and one target-action for touch up
/// inside. Main thread.

#include <string>

#include "quorvia/export.h"
#include "platform/Label.h"

namespace quorvia::platform {

class QUORVIA_EXPORT Button final : public Label {
 public:
  Button();
  /// addTarget:action:forControlEvents: (touch up inside). The target is
  /// held weakly, as the platform does; a later call replaces the earlier.
  void addTarget(std::weak_ptr<View> target, std::string action);
  /// Sends the action to the target with this button as sender; nothing
  /// when the target has gone.
  void sendActions();
  bool isControl() const override { return true; }

 private:
  std::weak_ptr<View> target_;
  std::string action_;
};

}  // namespace quorvia::platform
