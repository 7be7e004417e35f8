#include "quorvia/platform/Value.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <unordered_map>
#include <utility>

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
        case '"':
          out += "\\\"";
          break;
        case '\\':
          out += "\\\\";
          break;
        case '\n':
          out += "\\n";
          break;
        case '\t':
          out += "\\t";
          break;
        case '\r':
          out += "\\r";
          break;
        default:
          out += static_cast<char>(c);
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
        // The entries are sorted, not looked up again by key: a lookup walks
        // the list, which would cost a wide dictionary the square of its size.
        std::vector<const std::pair<const std::string, Value>*> entries;
        entries.reserve(v.size());
        for (const auto& entry : *v.get_ptr<const Value::object_t*>()) entries.push_back(&entry);
        std::sort(entries.begin(), entries.end(),
                  [](auto* a, auto* b) { return a->first < b->first; });
        indent(level);
        append("{\n");
        for (const auto* entry : entries) {
          if (full_) return;
          indent(level + 1);
          append(plistQuoted(entry->first));
          append(" = ");
          describeAt(entry->second, level + 1, true);
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

// Builds a value from the reader's events in time linear in the text: an
// object's keys go to the end of its list as they come, and a key seen before
// in the same object is found through an index instead of a walk of the list
// (the value type's own insert walks the list, which made a wide object cost
// the square of its key count). A repeated key keeps its first place and
// takes the last value, as the value type's own insert does.
class LinearBuilder final {
 public:
  bool null() { return put(nullptr); }
  bool boolean(bool v) { return put(v); }
  bool number_integer(Value::number_integer_t v) { return put(v); }
  bool number_unsigned(Value::number_unsigned_t v) { return put(v); }
  bool number_float(Value::number_float_t v, const Value::string_t&) { return put(v); }
  bool string(Value::string_t& v) { return put(std::move(v)); }
  bool binary(Value::binary_t& v) { return put(Value::binary(std::move(v))); }
  bool start_object(std::size_t) { return open(Value::object()); }
  bool start_array(std::size_t) { return open(Value::array()); }
  bool end_object() { return close(); }
  bool end_array() { return close(); }
  bool key(Value::string_t& key) {
    Level& level = stack_.back();
    auto& entries =
        static_cast<Value::object_t::Container&>(*level.value->get_ptr<Value::object_t*>());
    std::size_t at = entries.size();
    if (entries.size() < kIndexFrom) {
      for (std::size_t i = 0; i < entries.size() && at == entries.size(); ++i) {
        if (entries[i].first == key) at = i;
      }
    } else {
      // Past a few keys the list is indexed by the keys' hashes (the strings
      // move as the list grows, so they are compared in place).
      if (!level.index) {
        level.index = std::make_unique<std::unordered_multimap<std::size_t, std::size_t>>();
        for (std::size_t i = 0; i < entries.size(); ++i) {
          level.index->emplace(std::hash<std::string>{}(entries[i].first), i);
        }
      }
      const std::size_t hash = std::hash<std::string>{}(key);
      for (auto [it, end] = level.index->equal_range(hash); it != end; ++it) {
        if (entries[it->second].first == key) at = it->second;
      }
      if (at == entries.size()) level.index->emplace(hash, at);
    }
    if (at == entries.size()) entries.emplace_back(std::move(key), nullptr);
    pending_ = &entries[at].second;
    return true;
  }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) {
    return false;
  }

  Value take() && { return std::move(root_); }

 private:
  static constexpr std::size_t kIndexFrom = 16;
  struct Level {
    Value* value;
    std::unique_ptr<std::unordered_multimap<std::size_t, std::size_t>> index;
  };

  // Where the next value goes: the root, the key just read, or the array's end.
  Value* slot() {
    if (stack_.empty()) return &root_;
    if (Value* key = std::exchange(pending_, nullptr)) return key;
    Value* array = stack_.back().value;
    array->get_ptr<Value::array_t*>()->emplace_back();
    return &array->get_ptr<Value::array_t*>()->back();
  }
  template <typename T>
  bool put(T&& v) {
    *slot() = Value(std::forward<T>(v));
    return true;
  }
  bool open(Value container) {
    Value* at = slot();
    *at = std::move(container);
    stack_.push_back({at, nullptr});
    return true;
  }
  bool close() {
    stack_.pop_back();
    return true;
  }

  Value root_;
  Value* pending_ = nullptr;
  std::vector<Level> stack_;
};

// Depth of the deepest container, counting brackets outside string literals.
bool nestingWithinLimit(std::string_view text) {
  int depth = 0;
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inString) {
      if (c == '\\')
        ++i;
      else if (c == '"')
        inString = false;
      continue;
    }
    if (c == '"')
      inString = true;
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

std::string describe(const std::optional<std::string>& value) { return value ? *value : "(null)"; }

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
  LinearBuilder builder;
  try {
    if (!Value::sax_parse(text.begin(), text.end(), &builder)) return std::nullopt;
  } catch (const std::exception&) {
    return std::nullopt;  // out of memory, or the reader's own refusal
  }
  Value v = std::move(builder).take();
  if (!v.is_structured()) return std::nullopt;
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
