#include "platform/KeyedArchiver.h"

#include <algorithm>
#include <array>

namespace quorvia::platform {
namespace {

constexpr std::array<std::uint8_t, 5> kHeader = {'q', 'v', 'k', 'a', 0x01};

// The same bound as the JSON reader's: a decoder that recurses once per level
// must never meet an archive deeper than the stack can take, and no value the
// SDK writes comes close.
constexpr std::size_t kMaxArchiveDepth = 512;

// Walks the archive without building anything and stops at the first
// container past the bound, so the decoder below only ever sees shallow input.
class DepthCheck final {
 public:
  using number_integer_t = Value::number_integer_t;
  using number_unsigned_t = Value::number_unsigned_t;
  using number_float_t = Value::number_float_t;
  using string_t = Value::string_t;
  using binary_t = Value::binary_t;

  bool null() { return true; }
  bool boolean(bool) { return true; }
  bool number_integer(number_integer_t) { return true; }
  bool number_unsigned(number_unsigned_t) { return true; }
  bool number_float(number_float_t, const string_t&) { return true; }
  bool string(string_t&) { return true; }
  bool binary(binary_t&) { return true; }
  bool start_object(std::size_t) { return enter(); }
  bool key(string_t&) { return true; }
  bool end_object() { return leave(); }
  bool start_array(std::size_t) { return enter(); }
  bool end_array() { return leave(); }
  bool parse_error(std::size_t, const std::string&, const Value::exception&) { return false; }

 private:
  bool enter() { return ++depth_ <= kMaxArchiveDepth; }
  bool leave() {
    --depth_;
    return true;
  }

  std::size_t depth_ = 0;
};

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
  const auto body = data.begin() + kHeader.size();
  try {
    DepthCheck check;
    if (!Value::sax_parse(body, data.end(), &check, Value::input_format_t::cbor,
                          /*strict=*/true)) {
      return std::nullopt;
    }
    Value v = Value::from_cbor(body, data.end(), /*strict=*/true, /*allow_exceptions=*/false,
                               Value::cbor_tag_handler_t::error);
    if (v.is_discarded()) return std::nullopt;
    return v;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace quorvia::platform
