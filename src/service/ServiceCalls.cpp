#include "quorvia/QuorviaSDK.h"
#include "sdk/CallTrace.h"

namespace quorvia {

// Placeholders until the service client lands: calls are recorded, nothing is sent.
void QuorviaSDK::setDeviceToken(const std::optional<platform::Bytes>& token) {
  auto& trace = detail::callTrace();
  std::lock_guard lock(trace.mu);
  trace.deviceTokens.push_back(token);
}

void QuorviaSDK::setUserInfo(const std::optional<platform::Value>& userInfo) {
  auto& trace = detail::callTrace();
  std::lock_guard lock(trace.mu);
  trace.userInfos.push_back(userInfo);
}

void QuorviaSDK::sendReplyWithIdentifier(const std::optional<std::string>& identifier,
                                         const platform::Value& userInfo,
                                         CompletionHandler completionHandler) {
  auto& trace = detail::callTrace();
  std::lock_guard lock(trace.mu);
  trace.replies.push_back({identifier, std::nullopt, userInfo, true, std::move(completionHandler)});
}

void QuorviaSDK::sendReplyWithIdentifier(const std::optional<std::string>& identifier,
                                         const platform::Value* pollId,
                                         CompletionHandler completionHandler) {
  auto& trace = detail::callTrace();
  std::lock_guard lock(trace.mu);
  trace.replies.push_back({identifier,
                           pollId ? std::optional<platform::Value>(*pollId) : std::nullopt,
                           std::nullopt, false, std::move(completionHandler)});
}

}  // namespace quorvia
