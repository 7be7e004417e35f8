#pragma once
/// \file
/// One answer option of the banner.

#include <memory>

#include "quorvia/export.h"
#include "platform/Label.h"
#include "platform/TableView.h"

namespace quorvia {

/// Loaded from the layout file "QVNotificationActionCell". Main thread.
class QUORVIA_EXPORT QVNotificationActionCell final : public platform::TableViewCell {
 public:
  static constexpr double kCornerRadius = 10.0;

  /// The visible row body: masked, and grey while touched.
  const std::shared_ptr<platform::View>& containerView() const { return containerView_; }
  const std::shared_ptr<platform::Label>& customLabel() const { return customLabel_; }

  /// Top corners rounded (radius 10, corners 3).
  void setTopMask();
  /// Bottom corners rounded (radius 10, corners 12).
  void setBottomMask();
  /// Square corners: radius 0 with corners 3, then again with corners 12.
  void setNoMask();
  /// Schedules the container's mask on the main queue (no delay) and returns;
  /// it is built from the container's bounds when it runs. The last one wins.
  void setMaskWithRadius(double radius, unsigned corners);

  /// Grey on touch down; white again on touch up or cancel.
  void touchesBegan(const platform::TouchSet& touches) override;
  void touchesEnded(const platform::TouchSet& touches) override;
  void touchesCancelled(const platform::TouchSet& touches) override;
  bool setOutlet(std::string_view name, const std::shared_ptr<platform::View>& view) override;

 private:
  std::shared_ptr<platform::View> containerView_;
  std::shared_ptr<platform::Label> customLabel_;
};

}  // namespace quorvia
