// The cache list: per-URL expiry strings, their dates, and their persistence.

#include <chrono>
#include <cmath>
#include <cstdint>
#include <limits>

#include "networking/SimpleNetworking.h"
#include "platform/DateFormatter.h"
#include "platform/KeyedArchiver.h"
#include "platform/Log.h"
#include "quorvia/platform/NotificationCenter.h"
#include "platform/UserDefaults.h"

namespace quorvia {
namespace {

std::int32_t saturatingSeconds(double seconds) {
  if (std::isnan(seconds)) return 0;
  if (seconds >= static_cast<double>(std::numeric_limits<std::int32_t>::max())) {
    return std::numeric_limits<std::int32_t>::max();
  }
  if (seconds <= static_cast<double>(std::numeric_limits<std::int32_t>::min())) {
    return std::numeric_limits<std::int32_t>::min();
  }
  return static_cast<std::int32_t>(seconds);  // truncates toward zero
}

}  // namespace

platform::Value SimpleNetworking::allNetworkCacheURLs() const {
  std::lock_guard lock(cacheListMu_);
  return allNetworkCacheURLs_;
}

void SimpleNetworking::setupCaching() {
  auto stored = platform::UserDefaults::standardUserDefaults().dictionaryForKey(kStoredCacheLoadKey);
  {
    std::lock_guard lock(cacheListMu_);
    allNetworkCacheURLs_ = stored ? std::move(*stored) : platform::Value::object();
  }
  auto& center = platform::NotificationCenter::defaultCenter();
  for (const char* name : {platform::UIApplicationWillResignActiveNotification,
                           platform::UIApplicationDidEnterBackgroundNotification,
                           platform::UIApplicationWillTerminateNotification}) {
    center.addObserver(name, [this](std::string_view) { saveCacheListToUserDefault(); });
  }
}

void SimpleNetworking::saveCacheListToUserDefault() {
  // Saved under a different key from the one loaded at start, deliberately:
  // every process starts with an empty list.
  auto& defaults = platform::UserDefaults::standardUserDefaults();
  defaults.setObject(allNetworkCacheURLs(), kStoredCacheSaveKey);
  defaults.synchronize();
}

bool SimpleNetworking::archive(const std::optional<platform::Value>& object,
                               const std::string& key) {
  auto& defaults = platform::UserDefaults::standardUserDefaults();
  std::optional<platform::Value> data;
  if (object) data = platform::dataValue(platform::archivedDataWithRootObject(*object));
  defaults.setObject(std::move(data), key);
  return defaults.synchronize();
}

std::optional<platform::Value> SimpleNetworking::unarchiveForKey(const std::string& key) {
  const auto stored = platform::UserDefaults::standardUserDefaults().objectForKey(key);
  if (!stored) return std::nullopt;
  if (!stored->is_binary()) {
    platform::debugLog("SimpleNetworking: user default " + key + " is not an archive");
    return std::nullopt;
  }
  return platform::unarchiveObjectWithData(stored->get_binary());
}

std::string SimpleNetworking::getNSStringFromNSDate(const Date& date,
                                                    const std::string& format) const {
  return selfFormatNSDate(date, format);
}

SimpleNetworking::Date SimpleNetworking::getNSDateFromNSString(const std::string& text,
                                                               const std::string& format) const {
  return selfGetNSDateFromString(text, format);
}

std::string SimpleNetworking::selfFormatNSDate(const Date& date, const std::string& format) const {
  if (!date) return {};
  platform::DateFormatter formatter;
  formatter.setDateFormat(format);
  return formatter.stringFromDate(*date);
}

SimpleNetworking::Date SimpleNetworking::selfGetNSDateFromString(const std::string& text,
                                                                 const std::string& format) const {
  platform::DateFormatter formatter;
  formatter.setDateFormat(format);
  const auto parsed = formatter.dateFromString(text);
  if (!parsed) return nullptr;
  return std::make_shared<const platform::SystemTime>(*parsed);
}

std::string SimpleNetworking::getCurrentTimeInNSStringWithFormat(const std::string& format) const {
  return selfFormatNSDate(std::make_shared<const platform::SystemTime>(platform::wallClockNow()),
                          format);
}

SimpleNetworking::Date SimpleNetworking::addSeconds(std::int32_t seconds, const Date& date) const {
  if (!date) return nullptr;
  // A date near the end of what the clock type holds would overflow: no date.
  using Duration = platform::SystemTime::duration;
  const auto delta = std::chrono::duration_cast<Duration>(std::chrono::seconds(seconds));
  const Duration since = date->time_since_epoch();
  if ((delta.count() > 0 && since > Duration::max() - delta) ||
      (delta.count() < 0 && since < Duration::min() - delta)) {
    return nullptr;
  }
  return std::make_shared<const platform::SystemTime>(*date + delta);
}

bool SimpleNetworking::isPastTime(const Date& date) const {
  const Date now =
      selfGetNSDateFromString(getCurrentTimeInNSStringWithFormat(kExpiryFormat), kExpiryFormat);
  // Identity, not time, decides, deliberately: callers depend on cached
  // answers surviving or not exactly as the object layout makes them.
  return reinterpret_cast<std::uintptr_t>(date.get()) < reinterpret_cast<std::uintptr_t>(now.get());
}

bool SimpleNetworking::checkAndRenewExpiry(const std::string& url, double cacheExpireInSeconds) {
  std::lock_guard lock(cacheListMu_);
  bool usable = true;
  const auto found = allNetworkCacheURLs_.find(url);
  if (found != allNetworkCacheURLs_.end()) {
    const Date expiry = getNSDateFromNSString(platform::describe(*found), kExpiryFormat);
    if (isPastTime(expiry)) usable = false;
  }
  // Every cached call slides the expiry forward, hit or miss, deliberately:
  // a URL asked for more often than its lifetime keeps its cached answer.
  const Date now = std::make_shared<const platform::SystemTime>(platform::wallClockNow());
  allNetworkCacheURLs_[url] =
      getNSStringFromNSDate(addSeconds(saturatingSeconds(cacheExpireInSeconds), now), kExpiryFormat);
  return usable;
}

}  // namespace quorvia
