#pragma once
/// \file
/// The question row, the bottom of the banner's card.

#include <memory>

#include "quorvia/export.h"
#include "platform/Label.h"
#include "platform/TableView.h"

namespace quorvia {

/// Loaded from the layout file "QVNotificationTextCell". Main thread.
class QUORVIA_EXPORT QVNotificationTextCell final : public platform::TableViewCell {
 public:
  /// The visible question body, rounded at its bottom corners once loaded.
  const std::shared_ptr<platform::View>& containerView() const { return containerView_; }
  const std::shared_ptr<platform::Label>& customLabel() const { return customLabel_; }

  /// Schedules the bottom-corner mask (radius 10) for after the layout pass.
  void awakeFromNib() override;
  /// No look of its own: the platform cell's behaviour.
  void setSelected(bool selected, bool animated) override;
  bool setOutlet(std::string_view name, const std::shared_ptr<platform::View>& view) override;

 private:
  std::shared_ptr<platform::View> containerView_;
  std::shared_ptr<platform::Label> customLabel_;
};

}  // namespace quorvia
