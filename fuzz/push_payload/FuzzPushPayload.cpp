// A push payload: the notification-handling path into the poll record and the banner.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "../FuzzSupport.h"
#include "quorvia/QuorviaSDK.h"
#include "sdk/SDKState.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quorvia;
  fuzz::installPlatformDoubles();
  const auto payload = platform::parseJson(std::string_view(reinterpret_cast<const char*>(data), size));
  if (!payload) return 0;
  QuorviaSDK::handleRemoteNotification(*payload);
  platform::mainRunLoop().advance(platform::seconds(1));
  if (auto& banner = *sdk::SDKState::shared().banner; banner.presentedPollView()) {
    banner.hideNotificationView(banner.presentedPollView());
    platform::mainRunLoop().advance(platform::seconds(1));
  }
  return 0;
}
