#pragma once
// Internal: the poll banner's controller. It shows one banner at a time,
// slides it in and out, lays the backdrop under it when it expands, and turns
// the user's gestures into replies. Main thread.

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "quorvia/platform/Value.h"
#include "ui/QVNotificationView.h"
#include "ui/QVNotificationViewDelegate.h"

namespace quorvia {

namespace service {
class PollService;
}

class BannerController final : public QVNotificationViewDelegate,
                               public std::enable_shared_from_this<BannerController> {
 public:
  /// `replies` sends the replies; `log` writes the SDK's switchable lines.
  BannerController(std::shared_ptr<service::PollService> replies,
                   std::function<void(std::string_view)> log)
      : replies_(std::move(replies)), log_(std::move(log)) {}

  /// The banner on screen, or null.
  const std::shared_ptr<QVNotificationView>& presentedPollView() const {
    return presentedPollView_;
  }
  void setPresentedPollView(std::shared_ptr<QVNotificationView> view) {
    presentedPollView_ = std::move(view);
  }

  /// Shows a poll as a banner sliding down from the top of the key window.
  /// Returns null when a banner is already shown (the poll is dropped). A
  /// malformed poll raises; the caller decides whether that is logged.
  std::shared_ptr<QVNotificationView> presentPollWithPollDict(const platform::Value* pollDict);
  /// Expands a shown banner over a backdrop (null: only the backdrop).
  void showOptionsForNotificationView(const std::shared_ptr<QVNotificationView>& view);
  /// Slides a banner out of sight and frees the way for the next one.
  void hideNotificationView(const std::shared_ptr<QVNotificationView>& view);

  // QVNotificationViewDelegate
  void notificationViewDidPressExpand(const std::shared_ptr<QVNotificationView>& view) override;
  void notificationView(const std::shared_ptr<QVNotificationView>& view,
                        const std::optional<std::string>& identifier,
                        const std::optional<std::string>& link) override;
  void notificationViewDidPressClose(const std::shared_ptr<QVNotificationView>& view) override;

 private:
  void log(std::string_view message) const { log_(message); }

  const std::shared_ptr<service::PollService> replies_;
  const std::function<void(std::string_view)> log_;
  std::shared_ptr<QVNotificationView> presentedPollView_;
};

}  // namespace quorvia
