#include "platform/Guard.h"
#include "quorvia/QuorviaSDK.h"

namespace quorvia {

void QuorviaSDK::handleRemoteNotification(const platform::Value& payload) {
  const platform::Value* poll = platform::valueForKey(payload, "poll");
  if (!poll) return;
  platform::runDroppingExceptions("handleRemoteNotification:", [&] {
    // The banner is shown collapsed: the returned view is not expanded here.
    sharedInstance()->presentPollWithPollDict(poll);
  });
}

void QuorviaSDK::handleActionWithIdentifier(const std::optional<std::string>& identifier,
                                            const platform::Value& userInfo) {
  // The identifier is not examined: the default action goes on like any other.
  sharedInstance()->sendReplyWithIdentifier(identifier, userInfo, nullptr);
}

}  // namespace quorvia
