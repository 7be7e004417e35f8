#include "platform/DateFormatter.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unicode/locid.h>
#include <unicode/parsepos.h>
#include <unicode/simpletz.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

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

constexpr const char* kLocalTime = "/etc/localtime";
constexpr std::size_t kMaxFormatters = 16;

// One ICU formatter per pattern, locale, time zone and thread, with the last
// few conversions remembered: building a formatter costs tens of microseconds
// and a conversion a few, while the cache list converts the same instants and
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

// The locale dates are written in: LC_ALL, else LC_TIME, else LANG, as the C
// library orders them, without codeset or modifier; ICU's name for "C".
std::string currentLocaleName() {
  std::string name;
  for (const char* variable : {"LC_ALL", "LC_TIME", "LANG"}) {
    const char* value = std::getenv(variable);
    if (value && *value) {
      name = value;
      break;
    }
  }
  name = name.substr(0, name.find_first_of(".@"));
  return name.empty() || name == "C" || name == "POSIX" ? "en_US_POSIX" : name;
}

// How many times /etc may have changed since the process began watching it;
// 0 when it cannot be watched (then /etc/localtime is looked at every time).
// One non-blocking read per call, where looking at the link is a path walk.
std::uint64_t etcGeneration() {
  static std::atomic<std::uint64_t> generation{1};
  static const int watch = [] {
    const int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd < 0) return -1;
    if (::inotify_add_watch(fd, "/etc",
                            IN_CREATE | IN_DELETE | IN_MOVED_TO | IN_MOVED_FROM | IN_CLOSE_WRITE |
                                IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF) < 0) {
      ::close(fd);
      return -1;
    }
    return fd;
  }();
  if (watch < 0) return 0;
  alignas(inotify_event) char events[4096];
  bool changed = false;
  while (::read(watch, events, sizeof events) > 0) changed = true;
  return changed ? ++generation : generation.load();
}

// Where /etc/localtime points, or for a copied file, which file it is and
// when it was written.
std::string lookUpLocalTime() {
  std::error_code ec;
  const auto target = std::filesystem::read_symlink(kLocalTime, ec);
  if (!ec) return "link=" + target.string();
  struct stat st {};
  if (::stat(kLocalTime, &st) != 0) return "none";
  return "file=" + std::to_string(st.st_ino) + ":" + std::to_string(st.st_mtim.tv_sec) + "." +
         std::to_string(st.st_mtim.tv_nsec);
}

// What names the process's current time zone: TZ when set, else
// /etc/localtime, whose answer is kept per thread until /etc changes.
std::string currentZoneKey() {
  if (const char* tz = std::getenv("TZ")) return std::string("TZ=") + tz;
  thread_local std::uint64_t seen = 0;
  thread_local std::string key;
  const std::uint64_t now = etcGeneration();
  if (now == 0 || now != seen) {
    key = lookUpLocalTime();
    seen = now;
  }
  return key;
}

// The zone `key` names. ICU reads TZ itself; /etc/localtime it reads once
// per process, so a link is followed here.
std::unique_ptr<icu::TimeZone> zoneFor(const std::string& key) {
  constexpr std::string_view kZoneInfo = "zoneinfo/";
  if (key.starts_with("link=")) {
    const auto at = key.find(kZoneInfo);
    if (at != std::string::npos) {
      std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createTimeZone(
          icu::UnicodeString::fromUTF8(key.substr(at + kZoneInfo.size()))));
      if (zone && *zone != icu::TimeZone::getUnknown()) return zone;
    }
  }
  // ICU detects into buffers of its own, one caller at a time.
  static auto* const detecting = new std::mutex;
  std::lock_guard lock(*detecting);
  std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::detectHostTimeZone());
  // A POSIX rule ICU cannot name (such as "<+0530>-5:30") comes back as
  // another zone: the C library's offset of now decides then.
  ::tzset();
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  if (!zone || !::localtime_r(&now, &local)) return zone;
  UErrorCode status = U_ZERO_ERROR;
  std::int32_t raw = 0, dst = 0;
  zone->getOffset(static_cast<UDate>(now) * 1000.0, false, raw, dst, status);
  const auto offsetMs = static_cast<std::int32_t>(local.tm_gmtoff * 1000);
  if (U_FAILURE(status) || raw + dst != offsetMs) {
    zone = std::make_unique<icu::SimpleTimeZone>(offsetMs, icu::UnicodeString::fromUTF8(key));
  }
  return zone;
}

// The formatter for `pattern` in the current locale and time zone. Both are
// looked up at every call, so that a change is seen at once; only what they
// and the pattern fully decide is kept, one formatter per combination and
// thread.
std::shared_ptr<PatternFormatter> formatterForPattern(const std::string& pattern) {
  thread_local std::map<std::string, std::shared_ptr<PatternFormatter>> formatters;
  const std::string locale = currentLocaleName();
  const std::string zoneKey = currentZoneKey();
  std::string key = pattern;
  key.append(1, '\0').append(locale).append(1, '\0').append(zoneKey);
  auto found = formatters.find(key);
  if (found != formatters.end()) return found->second;
  UErrorCode status = U_ZERO_ERROR;
  auto icu = std::make_unique<icu::SimpleDateFormat>(icu::UnicodeString::fromUTF8(pattern),
                                                     icu::Locale(locale.c_str()), status);
  if (U_FAILURE(status)) return nullptr;
  icu->setLenient(false);
  if (auto zone = zoneFor(zoneKey)) icu->adoptTimeZone(zone.release());
  if (formatters.size() >= kMaxFormatters) formatters.clear();
  auto formatter = std::make_shared<PatternFormatter>();
  formatter->icu = std::move(icu);
  return formatters.emplace(std::move(key), std::move(formatter)).first->second;
}

}  // namespace

struct DateFormatter::State {
  std::shared_ptr<PatternFormatter> formatter;
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
  return SystemTime(
      std::chrono::duration_cast<SystemTime::duration>(std::chrono::milliseconds(*ms)));
}

}  // namespace quorvia::platform
