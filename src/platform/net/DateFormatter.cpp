#include "quorvia/platform/DateFormatter.h"

#include <unicode/parsepos.h>
#include <unicode/smpdtfmt.h>
#include <unicode/unistr.h>

#include <chrono>
#include <map>
#include <string>

namespace quorvia::platform {
namespace {

// Building an ICU formatter costs tens of microseconds, so each thread keeps
// one per pattern; a formatter is only ever used by the thread that made it.
icu::SimpleDateFormat* formatterForPattern(const std::string& pattern) {
  thread_local std::map<std::string, std::unique_ptr<icu::SimpleDateFormat>> formatters;
  auto found = formatters.find(pattern);
  if (found != formatters.end()) return found->second.get();
  UErrorCode status = U_ZERO_ERROR;
  auto formatter = std::make_unique<icu::SimpleDateFormat>(
      icu::UnicodeString::fromUTF8(pattern), status);
  if (U_FAILURE(status)) return nullptr;
  formatter->setLenient(false);
  if (formatters.size() > 16) formatters.clear();
  return formatters.emplace(pattern, std::move(formatter)).first->second.get();
}

}  // namespace

struct DateFormatter::State {
  icu::SimpleDateFormat* formatter = nullptr;
};

DateFormatter::DateFormatter() : state_(std::make_unique<State>()) {}
DateFormatter::~DateFormatter() = default;

void DateFormatter::setDateFormat(std::string_view format) {
  state_->formatter = formatterForPattern(std::string(format));
}

std::string DateFormatter::stringFromDate(SystemTime date) const {
  if (!state_->formatter) return {};
  const auto ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(date.time_since_epoch()).count();
  icu::UnicodeString text;
  state_->formatter->format(static_cast<UDate>(ms), text);
  std::string out;
  text.toUTF8String(out);
  return out;
}

std::optional<SystemTime> DateFormatter::dateFromString(std::string_view text) const {
  if (!state_->formatter) return std::nullopt;
  const icu::UnicodeString input =
      icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
  icu::ParsePosition position(0);
  const UDate date = state_->formatter->parse(input, position);
  if (position.getErrorIndex() >= 0 || position.getIndex() != input.length()) return std::nullopt;
  return SystemTime(std::chrono::duration_cast<SystemTime::duration>(
      std::chrono::milliseconds(static_cast<std::int64_t>(date))));
}

}  // namespace quorvia::platform
