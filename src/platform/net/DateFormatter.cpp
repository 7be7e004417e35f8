#include "platform/DateFormatter.h"

#include <unicode/parsepos.h>
#include <unicode/smpdtfmt.h>
#include <unicode/unistr.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <string>

namespace quorvia::platform {
namespace {

// The instants a SystemTime can hold (nanoseconds in 64 bits: about the years
// 1678 to 2262), in milliseconds. A stored date outside them would overflow
// the conversion, so it reads as one that does not parse.
constexpr double kLatestMs = static_cast<double>(
    std::chrono::duration_cast<std::chrono::milliseconds>(SystemTime::duration::max()).count());
constexpr double kEarliestMs = static_cast<double>(
    std::chrono::duration_cast<std::chrono::milliseconds>(SystemTime::duration::min()).count());

bool representable(UDate ms) { return ms > kEarliestMs && ms < kLatestMs; }

// One ICU formatter per pattern and thread, with the last few conversions
// remembered: building a formatter costs tens of microseconds and a
// conversion a few, while the cache list converts the same instants and
// strings over and over. A formatter is only used by the thread that made it.
struct PatternFormatter {
  static constexpr std::size_t kRemembered = 4;

  std::unique_ptr<icu::SimpleDateFormat> icu;
  std::array<std::pair<std::int64_t, std::string>, kRemembered> formatted{};
  std::size_t formattedCount = 0;
  std::array<std::pair<std::string, std::optional<std::int64_t>>, kRemembered> parsed{};
  std::size_t parsedCount = 0;

  std::string format(std::int64_t ms) {
    for (std::size_t i = 0; i < std::min(formattedCount, kRemembered); ++i) {
      if (formatted[i].first == ms) return formatted[i].second;
    }
    icu::UnicodeString text;
    icu->format(static_cast<UDate>(ms), text);
    std::string out;
    text.toUTF8String(out);
    formatted[formattedCount++ % kRemembered] = {ms, out};
    return out;
  }

  std::optional<std::int64_t> parse(std::string_view text) {
    for (std::size_t i = 0; i < std::min(parsedCount, kRemembered); ++i) {
      if (parsed[i].first == text) return parsed[i].second;
    }
    const icu::UnicodeString input = icu::UnicodeString::fromUTF8(
        icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    icu::ParsePosition position(0);
    const UDate date = icu->parse(input, position);
    std::optional<std::int64_t> result;
    if (position.getErrorIndex() < 0 && position.getIndex() == input.length() &&
        representable(date)) {
      result = static_cast<std::int64_t>(date);
    }
    parsed[parsedCount++ % kRemembered] = {std::string(text), result};
    return result;
  }
};

PatternFormatter* formatterForPattern(const std::string& pattern) {
  thread_local std::map<std::string, std::unique_ptr<PatternFormatter>> formatters;
  auto found = formatters.find(pattern);
  if (found != formatters.end()) return found->second.get();
  UErrorCode status = U_ZERO_ERROR;
  auto icu = std::make_unique<icu::SimpleDateFormat>(icu::UnicodeString::fromUTF8(pattern), status);
  if (U_FAILURE(status)) return nullptr;
  icu->setLenient(false);
  if (formatters.size() > 16) formatters.clear();
  auto formatter = std::make_unique<PatternFormatter>();
  formatter->icu = std::move(icu);
  return formatters.emplace(pattern, std::move(formatter)).first->second.get();
}

}  // namespace

struct DateFormatter::State {
  PatternFormatter* formatter = nullptr;
};

DateFormatter::DateFormatter() : state_(std::make_unique<State>()) {}
DateFormatter::~DateFormatter() = default;

void DateFormatter::setDateFormat(std::string_view format) {
  state_->formatter = formatterForPattern(std::string(format));
}

std::string DateFormatter::stringFromDate(SystemTime date) const {
  if (!state_->formatter) return {};
  return state_->formatter->format(
      std::chrono::duration_cast<std::chrono::milliseconds>(date.time_since_epoch()).count());
}

std::optional<SystemTime> DateFormatter::dateFromString(std::string_view text) const {
  if (!state_->formatter) return std::nullopt;
  const auto ms = state_->formatter->parse(text);
  if (!ms) return std::nullopt;
  return SystemTime(std::chrono::duration_cast<SystemTime::duration>(std::chrono::milliseconds(*ms)));
}

}  // namespace quorvia::platform
