#include "quorvia/QuorviaSDK.h"

namespace quorvia {

// Placeholders until the service client lands: nothing is sent yet.
void QuorviaSDK::setDeviceToken(const std::optional<platform::Bytes>&) {}

void QuorviaSDK::setUserInfo(const std::optional<platform::Value>&) {}

void QuorviaSDK::sendReplyWithIdentifier(const std::optional<std::string>&, const platform::Value&,
                                         CompletionHandler) {}

void QuorviaSDK::sendReplyWithIdentifier(const std::optional<std::string>&,
                                         const platform::Value*, CompletionHandler) {}

}  // namespace quorvia
