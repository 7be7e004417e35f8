// A fetch response body: JSON decoding, then poll parsing into the banner.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "../FuzzSupport.h"
#include "quorvia/QuorviaSDK.h"
#include "sdk/SDKState.h"
#include "quorvia/platform/Error.h"
#include "service/QVModelPoll.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quorvia;
  fuzz::installPlatformDoubles();
  const auto value = platform::parseJson(std::string_view(reinterpret_cast<const char*>(data), size));
  if (!value) return 0;
  (void)platform::describe(*value);
  try {
    sdk::SDKState::shared().service->parsePollsReponse(*value);
  } catch (const platform::Exception&) {
    // The fetch completion's guard drops these.
  }
  platform::mainRunLoop().advance(platform::seconds(1));
  if (auto& banner = *sdk::SDKState::shared().banner; banner.presentedPollView()) {
    banner.hideNotificationView(banner.presentedPollView());
    platform::mainRunLoop().advance(platform::seconds(1));
  }
  return 0;
}
