// The parameter string and the request builder (form and multipart bodies)
// with arbitrary dictionaries, bytes, names and request types.
#include <cstddef>
#include <cstdint>

#include "../FuzzSupport.h"
#include "networking/SimpleNetworking.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quorvia;
  fuzz::installPlatformDoubles();
  FuzzedDataProvider in(data, size);
  const int type = in.ConsumeIntegralInRange(-1, 4);
  const bool isImage = in.ConsumeBool();
  const std::string url = in.ConsumeRandomLengthString(128);
  const std::string imageName = in.ConsumeRandomLengthString(32);
  const std::string imageExtension = in.ConsumeRandomLengthString(16);
  std::optional<platform::Bytes> image;
  if (in.ConsumeBool()) image = in.ConsumeBytes<std::uint8_t>(in.ConsumeIntegralInRange(0, 256));
  std::optional<platform::Value> param;
  if (in.ConsumeBool()) param = fuzz::consumeValue(in, 3);

  if (param) (void)SimpleNetworking::getParamInString(*param);
  const auto request = SimpleNetworking::shared().requestWithType(type, url, param, isImage, imageName,
                                                                  imageExtension, image);
  (void)request.valueForHTTPHeaderField("Content-Type");
  return 0;
}
