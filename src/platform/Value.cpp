#include "quorvia/platform/Value.h"

#include <algorithm>
#include <cstdio>

namespace quorvia::platform {
namespace {

// Containers nested deeper than this are refused by the JSON reader, so that
// no recursive walk over a decoded value can exhaust the stack.
constexpr int kMaxJsonDepth = 512;

// A description never grows past this many bytes; a longer one is cut at a
// character boundary and ends in the marker. Plain strings are exempt (their
// description is themselves).
constexpr std::size_t kMaxDescriptionBytes = 64 * 1024;
constexpr std::string_view kDescriptionTruncatedMarker = "...(truncated)";

// Foundation writes a string inside a collection bare only when it is plain
// ASCII letters and digits; anything else is quoted and escaped.
bool needsQuotes(std::string_view s) {
  if (s.empty()) return true;
  return !std::all_of(s.begin(), s.end(), [](unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
  });
}

void appendUtf16Escape(std::string& out, std::uint32_t unit) {
  char buf[8];
  std::snprintf(buf, sizeof buf, "\\U%04x", static_cast<unsigned>(unit & 0xFFFF));
  out += buf;
}

// Decodes one UTF-8 sequence at s[i]; on a malformed byte yields U+FFFD.
std::uint32_t nextCodePoint(std::string_view s, std::size_t& i) {
  const auto b0 = static_cast<unsigned char>(s[i]);
  int len = b0 < 0x80 ? 1 : (b0 >> 5) == 0x6 ? 2 : (b0 >> 4) == 0xE ? 3 : (b0 >> 3) == 0x1E ? 4 : 0;
  if (len == 0 || i + static_cast<std::size_t>(len) > s.size()) {
    ++i;
    return 0xFFFD;
  }
  std::uint32_t cp = len == 1 ? b0 : len == 2 ? (b0 & 0x1F) : len == 3 ? (b0 & 0x0F) : (b0 & 0x07);
  for (int k = 1; k < len; ++k) {
    const auto b = static_cast<unsigned char>(s[i + static_cast<std::size_t>(k)]);
    if ((b & 0xC0) != 0x80) {
      ++i;
      return 0xFFFD;
    }
    cp = (cp << 6) | (b & 0x3F);
  }
  i += static_cast<std::size_t>(len);
  return cp;
}

std::string plistQuoted(std::string_view s) {
  if (!needsQuotes(s)) return std::string(s);
  std::string out = "\"";
  for (std::size_t i = 0; i < s.size();) {
    const auto c = static_cast<unsigned char>(s[i]);
    if (c < 0x80) {
      ++i;
      switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\t': out += "\\t"; break;
        case '\r': out += "\\r"; break;
        default: out += static_cast<char>(c);
      }
      continue;
    }
    const std::uint32_t cp = nextCodePoint(s, i);
    if (cp >= 0x10000) {
      const std::uint32_t v = cp - 0x10000;
      appendUtf16Escape(out, 0xD800 + (v >> 10));
      appendUtf16Escape(out, 0xDC00 + (v & 0x3FF));
    } else {
      appendUtf16Escape(out, cp);
    }
  }
  out += '"';
  return out;
}

std::string describeNumber(const Value& v) {
  if (v.is_number_unsigned()) return std::to_string(v.get<std::uint64_t>());
  if (v.is_number_integer()) return std::to_string(v.get<std::int64_t>());
  char buf[40];
  std::snprintf(buf, sizeof buf, "%.16g", v.get<double>());
  return buf;
}

// At most the first `maxBytes` bytes are written.
std::string describeData(const Value::binary_t& bytes, std::size_t maxBytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out = "<";
  for (std::size_t i = 0; i < std::min(bytes.size(), maxBytes); ++i) {
    if (i > 0 && i % 4 == 0) out += ' ';
    out += kHex[bytes[i] >> 4];
    out += kHex[bytes[i] & 0xF];
  }
  out += '>';
  return out;
}

// Writes a description into one buffer and stops at kMaxDescriptionBytes, so
// that a small, deeply nested input (each level adds a deeper indentation)
// never turns into megabytes of text.
class Describer final {
 public:
  std::string take() && {
    if (out_.size() > kMaxDescriptionBytes) {
      out_.resize(kMaxDescriptionBytes);
      // Never leave half a UTF-8 sequence before the marker.
      while (!out_.empty() && (static_cast<unsigned char>(out_.back()) & 0xC0) == 0x80) {
        out_.pop_back();
      }
      if (!out_.empty() && static_cast<unsigned char>(out_.back()) >= 0xC0) out_.pop_back();
    }
    if (full_) out_ += kDescriptionTruncatedMarker;
    return std::move(out_);
  }

  // `level` is the indentation level of the line on which the value starts.
  void describeAt(const Value& v, int level, bool inCollection) {
    if (full_) return;
    switch (v.type()) {
      case Value::value_t::null:
        return append("<null>");
      case Value::value_t::boolean:
        return append(v.get<bool>() ? "1" : "0");
      case Value::value_t::string: {
        const auto& s = v.get_ref<const std::string&>();
        // Quoting never shrinks a string: what lies past the room is not needed.
        const std::string_view head = std::string_view(s).substr(0, room());
        return append(inCollection ? plistQuoted(head) : head);
      }
      case Value::value_t::binary:
        return append(describeData(v.get_binary(), room() / 2 + 1));
      case Value::value_t::number_integer:
      case Value::value_t::number_unsigned:
      case Value::value_t::number_float:
        return append(describeNumber(v));
      case Value::value_t::object: {
        if (tooDeep(level)) return;
        // Foundation lists a dictionary with string keys in ascending key order.
        std::vector<const std::string*> keys;
        keys.reserve(v.size());
        for (const auto& item : v.items()) keys.push_back(&item.key());
        std::sort(keys.begin(), keys.end(), [](auto* a, auto* b) { return *a < *b; });
        indent(level);
        append("{\n");
        for (const auto* key : keys) {
          if (full_) return;
          indent(level + 1);
          append(plistQuoted(*key));
          append(" = ");
          describeAt(v.at(*key), level + 1, true);
          append(";\n");
        }
        indent(level);
        return append("}");
      }
      case Value::value_t::array: {
        if (tooDeep(level)) return;
        indent(level);
        append("(\n");
        for (std::size_t i = 0; i < v.size(); ++i) {
          if (full_) return;
          indent(level + 1);
          describeAt(v[i], level + 1, true);
          append(i + 1 < v.size() ? ",\n" : "\n");
        }
        indent(level);
        return append(")");
      }
      case Value::value_t::discarded:
        return append("(null)");
    }
  }

 private:
  void append(std::string_view text) {
    if (full_) return;
    out_.append(text.substr(0, room()));
    full_ = out_.size() > kMaxDescriptionBytes;
  }

  void indent(int level) {
    if (full_) return;
    const auto width = static_cast<std::size_t>(level) * 4;
    out_.append(std::min(width, room()), ' ');
    full_ = out_.size() > kMaxDescriptionBytes;
  }

  std::size_t room() const { return kMaxDescriptionBytes + 1 - out_.size(); }

  // Values built in code are not bounded by the readers; the walk is.
  bool tooDeep(int level) {
    if (level < kMaxJsonDepth) return false;
    full_ = true;
    return true;
  }

  std::string out_;
  bool full_ = false;
};

// Depth of the deepest container, counting brackets outside string literals.
bool nestingWithinLimit(std::string_view text) {
  int depth = 0;
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inString) {
      if (c == '\\') ++i;
      else if (c == '"') inString = false;
      continue;
    }
    if (c == '"') inString = true;
    else if (c == '[' || c == '{') {
      if (++depth > kMaxJsonDepth) return false;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return true;
}

}  // namespace

Value dataValue(Bytes bytes) { return Value::binary(std::move(bytes)); }

const Value* valueForKey(const Value& dictionary, std::string_view key) {
  if (!dictionary.is_object()) return nullptr;
  const auto it = dictionary.find(key);
  return it == dictionary.end() ? nullptr : &*it;
}

const Value* valueForKey(const Value* dictionary, std::string_view key) {
  return dictionary ? valueForKey(*dictionary, key) : nullptr;
}

std::string describe(const Value& value) {
  // The top-level value is not indented, but nested containers start their
  // lines at their level, as Foundation's descriptionWithLocale:indent: does.
  // A plain string is its own description: nothing to bound beyond its size.
  if (value.is_string()) return value.get<std::string>();
  Describer describer;
  describer.describeAt(value, 0, false);
  return std::move(describer).take();
}

std::string describe(const Value* value) { return value ? describe(*value) : "(null)"; }

std::string describe(const std::optional<Value>& value) {
  return value ? describe(*value) : "(null)";
}

std::string describe(const std::optional<std::string>& value) {
  return value ? *value : "(null)";
}

std::string hexString(const Bytes& bytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (auto b : bytes) {
    out += kHex[b >> 4];
    out += kHex[b & 0xF];
  }
  return out;
}

std::optional<Value> parseJson(std::string_view text) {
  if (!nestingWithinLimit(text)) return std::nullopt;
  // The parser takes a NUL byte for the end of the text and would accept
  // whatever follows it; a raw NUL is valid nowhere in JSON.
  if (text.find('\0') != std::string_view::npos) return std::nullopt;
  Value v = Value::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
  if (v.is_discarded() || !v.is_structured()) return std::nullopt;
  return v;
}

std::optional<std::string> serializeJson(const Value& value) {
  try {
    // A data value has no JSON form; the platform's writer refuses it.
    bool hasBinary = false;
    std::vector<const Value*> stack{&value};
    while (!stack.empty()) {
      const Value* v = stack.back();
      stack.pop_back();
      if (v->is_binary()) hasBinary = true;
      if (v->is_structured())
        for (const auto& child : *v) stack.push_back(&child);
    }
    if (hasBinary) return std::nullopt;
    return value.dump(-1, ' ', false, Value::error_handler_t::replace);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace quorvia::platform
