// The devserver's request parsing: a body split as the SDK's form, and the
// access token of an Authorization header, both from the input.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include <fuzzer/FuzzedDataProvider.h>

#include "AccessToken.h"
#include "SdkForm.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quorvia::devserver;
  static const AccessToken tokens("fuzz-secret");
  static const std::string issued = tokens.issue({{"sub", "fuzz"}});
  FuzzedDataProvider in(data, size);
  const std::string header = in.ConsumeRandomLengthString(256);
  const std::string body = in.ConsumeRemainingBytesAsString();

  const auto form = parseSdkForm(body, {"push_token", "app_token", "platform", "reply_text", "user_info"});
  for (const auto& [key, value] : form) {
    if (value.size() > body.size()) __builtin_trap();
  }
  (void)base64UrlDecode(header);
  (void)tokens.verify(header);
  (void)tokens.verify(issued + header);
  (void)tokens.verify(issued.substr(0, issued.size() % (header.size() + 1)));
  return 0;
}
