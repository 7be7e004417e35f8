#include "platform/KeyedArchiver.h"

#include <algorithm>
#include <array>

namespace quorvia::platform {
namespace {
constexpr std::array<std::uint8_t, 5> kHeader = {'q', 'v', 'k', 'a', 0x01};
}  // namespace

Bytes archivedDataWithRootObject(const Value& root) {
  Bytes out(kHeader.begin(), kHeader.end());
  Value::to_cbor(root, out);
  return out;
}

std::optional<Value> unarchiveObjectWithData(const Bytes& data) {
  if (data.size() <= kHeader.size() || !std::equal(kHeader.begin(), kHeader.end(), data.begin())) {
    return std::nullopt;
  }
  try {
    Value v = Value::from_cbor(data.begin() + kHeader.size(), data.end(), /*strict=*/true,
                               /*allow_exceptions=*/false, Value::cbor_tag_handler_t::error);
    if (v.is_discarded()) return std::nullopt;
    return v;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace quorvia::platform
