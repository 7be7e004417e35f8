#pragma once
// Internal: the rounded-corner mask of a banner row's container view, built
// on the main queue after the layout pass that gives the container its size.

#include <memory>

#include "quorvia/platform/RunLoop.h"
#include "platform/View.h"

namespace quorvia::detail {

/// Masks `container` to its current bounds with `corners` rounded by `radius`.
void installContainerMask(platform::View* container, double radius, unsigned corners);

/// Queues the mask of `cell`'s container (no delay); the queued work keeps
/// the cell alive until it runs.
template <typename Cell>
void scheduleContainerMask(std::shared_ptr<Cell> cell, double radius, unsigned corners) {
  platform::dispatch_after(platform::Duration::zero(), [cell = std::move(cell), radius, corners] {
    installContainerMask(cell->containerView().get(), radius, corners);
  });
}

}  // namespace quorvia::detail
