#pragma once
/// \file
/// What the banner's header row reports.

#include <memory>

namespace quorvia {

namespace platform {
class Button;
}
class QVNotificationHeaderCell;

/// Told on the main thread when the header row's close button is pressed.
/// The cell holds its delegate weakly.
class QVNotificationHeaderCellDelegate {
 public:
  virtual ~QVNotificationHeaderCellDelegate() = default;
  virtual void headerCell(const std::shared_ptr<QVNotificationHeaderCell>& cell,
                          const std::shared_ptr<platform::Button>& closeButton) = 0;
};

}  // namespace quorvia
