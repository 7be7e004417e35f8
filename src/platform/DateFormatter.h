#pragma once
/// \file
/// Date formatting (NSDateFormatter) with ICU patterns, in the current
/// locale, calendar and time zone.

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "quorvia/export.h"
#include "quorvia/platform/Clock.h"

namespace quorvia::platform {

/// A date formatter that has only its pattern set. Not thread-safe: make one
/// per thread or per use. The locale and time zone are the process's current
/// ones when the pattern is set: the locale of LC_ALL, LC_TIME or LANG (in
/// that order), the zone of TZ or else of /etc/localtime, both read afresh,
/// so a formatter made after a change follows it. Instants have millisecond
/// precision.
class QUORVIA_EXPORT DateFormatter final {
 public:
  DateFormatter();
  ~DateFormatter();
  DateFormatter(const DateFormatter&) = delete;
  DateFormatter& operator=(const DateFormatter&) = delete;

  /// Sets the ICU date pattern, e.g. "MMM dd yyyy HH:mm:ss:SSSS".
  void setDateFormat(std::string_view format);
  /// The date written with the pattern; "" when no valid pattern is set.
  std::string stringFromDate(SystemTime date) const;
  /// The instant the text stands for, or nullopt when it does not match the
  /// pattern exactly (parsing is strict).
  std::optional<SystemTime> dateFromString(std::string_view text) const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace quorvia::platform
