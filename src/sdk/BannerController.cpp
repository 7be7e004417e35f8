#include "quorvia/QuorviaSDK.h"
#include "sdk/CallTrace.h"

namespace quorvia {

// Placeholders until the banner lands: nothing is shown yet.
std::shared_ptr<QVNotificationView> QuorviaSDK::presentPollWithPollDict(const platform::Value*) {
  ++detail::callTrace().presentPoll;
  return nullptr;
}

void QuorviaSDK::showOptionsForNotificationView(const std::shared_ptr<QVNotificationView>&) {
  ++detail::callTrace().showOptions;
}

void QuorviaSDK::hideNotificationView(const std::shared_ptr<QVNotificationView>&) {}

void QuorviaSDK::notificationViewDidPressExpand(const std::shared_ptr<QVNotificationView>&) {}

void QuorviaSDK::notificationView(const std::shared_ptr<QVNotificationView>&,
                                  const std::optional<std::string>&,
                                  const std::optional<std::string>&) {}

void QuorviaSDK::notificationViewDidPressClose(const std::shared_ptr<QVNotificationView>&) {}

}  // namespace quorvia
