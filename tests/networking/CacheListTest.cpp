// The cached GETs: URL cache hits and misses, the expiry list, its dates and
// its persistence in the user defaults.

#include <cstdlib>
#include <ctime>
#include <limits>

#include "networking/NetworkingTest.h"
#include "platform/URLCache.h"
#include "platform/UserDefaults.h"
#include "quorvia/platform/NotificationCenter.h"

namespace quorvia::testing {
namespace {

using platform::Value;

class CacheListTest : public NetworkingTest {
 protected:
  void SetUp() override {
    // English month names in UTC, so expiry strings are predictable.
    ::setenv("TZ", "UTC", 1);
    ::setenv("LC_ALL", "en_US", 1);
    ::tzset();
    NetworkingTest::SetUp();
  }

  static platform::URLRequest requestFor(const std::string& url) {
    return platform::URLRequest::requestWithURL(platform::URLWithString(url));
  }
  static std::optional<std::string> cachedBody(const std::string& url) {
    const auto cached =
        platform::URLCache::sharedURLCache()->cachedResponseForRequest(requestFor(url));
    if (!cached) return std::nullopt;
    return std::string(cached->data.begin(), cached->data.end());
  }
  static void storeInCache(const std::string& url, const std::string& body) {
    platform::CachedURLResponse cached;
    cached.response.statusCode = 200;
    cached.data.assign(body.begin(), body.end());
    platform::URLCache::sharedURLCache()->storeCachedResponse(cached, requestFor(url));
  }
  std::string expiryIn(int seconds) const {
    return SimpleNetworking::shared().getNSStringFromNSDate(
        std::make_shared<const platform::SystemTime>(wallNow_ + std::chrono::seconds(seconds)),
        SimpleNetworking::kExpiryFormat);
  }
  static Value storedList() { return SimpleNetworking::shared().allNetworkCacheURLs(); }
  static void setStored(const Value& value, const std::string& key) {
    platform::UserDefaults::standardUserDefaults().setObject(value, key);
  }
};

// A fresh entry answers before the call returns. A stale one is fetched,
// without its params in the body, and whatever comes back is cached, an error
// page too.
TEST_F(CacheListTest, FreshEntryAnswersAtOnceAndStaleOneIsFetchedAndCachedWhateverItsStatus) {
  LoopbackServer server;
  server.setReply({500, "text/html", "<html>down</html>"});
  // An expiry that does not parse (another locale wrote it) counts as past.
  setStored(Value{{server.url("/stale"), "Mär 21 2026 12:00:00:0000"}},
            SimpleNetworking::kStoredCacheLoadKey);
  SimpleNetworking::shared();  // loads the list, sizes the cache
  storeInCache(server.url("/cached%20path"), "{\"cached\":1}");
  storeInCache(server.url("/stale"), "{\"old\":1}");

  auto hit = std::make_shared<Outcome>();
  SimpleNetworking::getJsonCachedFromURL(server.url("/cached path"), std::nullopt, 60, record(hit));
  EXPECT_EQ(hit->calls, 1);
  EXPECT_EQ(hit->result, (Value{{"cached", 1}}));
  EXPECT_FALSE(hit->error);
  EXPECT_EQ(storedList()[server.url("/cached%20path")], expiryIn(60));

  auto stale = std::make_shared<Outcome>();
  SimpleNetworking::getJsonCachedFromURL(server.url("/stale"), Value{{"ignored", 1}}, 30,
                                         record(stale));
  EXPECT_EQ(stale->calls, 0);
  ASSERT_TRUE(waitFor(stale));
  EXPECT_EQ(hit->calls, 1);
  EXPECT_EQ(stale->calls, 1);
  EXPECT_FALSE(stale->result);
  EXPECT_FALSE(stale->error);
  ASSERT_EQ(server.requestCount(), 1u);
  EXPECT_EQ(server.requests()[0].body, "");
  EXPECT_EQ(cachedBody(server.url("/stale")), "<html>down</html>");
  EXPECT_EQ(storedList()[server.url("/stale")], expiryIn(30));
}

// The entry moves forward before the request is sent, even when it fails.
TEST_F(CacheListTest, ExpiryIsNowPlusTheLifetimeTruncatedAndSaturated) {
  LoopbackServer refusing(LoopbackServer::Behaviour::kRefuse);
  const std::pair<double, int> cases[] = {{60, 60},
                                          {2.9, 2},
                                          {-5, -5},
                                          {-2.9, -2},
                                          {0, 0},
                                          {1e12, std::numeric_limits<std::int32_t>::max()},
                                          {-1e12, std::numeric_limits<std::int32_t>::min()}};
  int i = 0;
  for (const auto& [lifetime, seconds] : cases) {
    const std::string url = refusing.url("/e" + std::to_string(i++));
    auto outcome = std::make_shared<Outcome>();
    SimpleNetworking::getJsonCachedFromURL(url, std::nullopt, lifetime, record(outcome));
    EXPECT_EQ(storedList()[url], expiryIn(seconds)) << lifetime;
    ASSERT_TRUE(waitFor(outcome));
    EXPECT_TRUE(outcome->error);
  }
}

TEST_F(CacheListTest, ExpiryStringsRoundTripToTheMillisecond) {
  auto& client = SimpleNetworking::shared();
  const auto format = SimpleNetworking::kExpiryFormat;
  EXPECT_EQ(client.getCurrentTimeInNSStringWithFormat(format), "Nov 21 2026 12:00:00:0000");
  const auto instant =
      std::make_shared<const platform::SystemTime>(wallNow_ + std::chrono::microseconds(123456789));
  const std::string text = client.getNSStringFromNSDate(instant, format);
  EXPECT_EQ(text, "Nov 21 2026 12:02:03:4560");
  const auto back = client.getNSDateFromNSString(text, format);
  ASSERT_TRUE(back);
  EXPECT_EQ(*back, wallNow_ + std::chrono::milliseconds(123456));
  for (const std::string bad : {"", "Nov 21 2026", "Mär 21 2026 12:00:00:0000", "garbage",
                                "Nov 21 2026 12:00:00:0000 trailing"}) {
    EXPECT_FALSE(client.getNSDateFromNSString(bad, format)) << bad;
  }
}

// A formatter is made for each conversion, so a change of the time zone or of
// the locale shows in the very next one, and each text reads back to the same
// instant where it was written.
TEST_F(CacheListTest, TimeZoneAndLocaleChangesShowAtTheNextConversion) {
  // TZ, LC_ALL and LC_TIME (nullptr: unset), and the expiry text of now.
  const std::tuple<const char*, const char*, const char*, std::string> cases[] = {
      {"UTC", "en_US", nullptr, "Nov 21 2026 12:00:00:0000"},
      {"Asia/Tokyo", "en_US", nullptr, "Nov 21 2026 21:00:00:0000"},
      {"America/New_York", "en_US.UTF-8", nullptr, "Nov 21 2026 07:00:00:0000"},
      {"America/New_York", "de_DE.UTF-8", nullptr, "Nov. 21 2026 07:00:00:0000"},
      {"America/New_York", nullptr, "fr_FR", "nov. 21 2026 07:00:00:0000"},
      {"<+0530>-5:30", "en_US", nullptr, "Nov 21 2026 17:30:00:0000"},
      {"UTC", "en_US", nullptr, "Nov 21 2026 12:00:00:0000"},
  };
  const auto set = [](const char* name, const char* value) {
    value ? ::setenv(name, value, 1) : ::unsetenv(name);
  };
  auto& client = SimpleNetworking::shared();
  const auto format = SimpleNetworking::kExpiryFormat;
  for (const auto& [tz, all, time, text] : cases) {
    SCOPED_TRACE(std::string(tz) + " " + (all ? all : time));
    set("TZ", tz);
    set("LC_ALL", all);
    set("LC_TIME", time);
    ::tzset();
    EXPECT_EQ(client.getCurrentTimeInNSStringWithFormat(format), text);
    const auto back = client.getNSDateFromNSString(text, format);
    ASSERT_TRUE(back);
    EXPECT_EQ(*back, wallNow_);
  }
}

// Loaded from one key at start and saved under the other, deliberately: every
// process starts from what was stored under the load key, never from its own save.
TEST_F(CacheListTest, ListIsLoadedFromOneKeyAndSavedUnderTheOther) {
  const Value entry = {{"http://127.0.0.1:1/x", "Nov 21 2026 12:00:00:0000"}};
  setStored(entry, SimpleNetworking::kStoredCacheLoadKey);
  setStored(Value{{"http://saved/", "Nov 21 2026 12:00:00:0000"}},
            SimpleNetworking::kStoredCacheSaveKey);
  EXPECT_EQ(storedList(), entry);

  LoopbackServer refusing(LoopbackServer::Behaviour::kRefuse);
  completed([&](auto r) {
    SimpleNetworking::getJsonCachedFromURL(refusing.url("/n"), std::nullopt, 5, r);
  });
  Value expected = entry;
  expected[refusing.url("/n")] = expiryIn(5);
  const auto path = dataDir_ / "data" / "UserDefaults.qvka";
  for (const char* name : {platform::UIApplicationWillResignActiveNotification,
                           platform::UIApplicationDidEnterBackgroundNotification,
                           platform::UIApplicationWillTerminateNotification}) {
    SCOPED_TRACE(name);
    std::filesystem::remove(path);
    platform::NotificationCenter::defaultCenter().postNotificationName(name);
    auto reread = platform::makeFileUserDefaults(path);
    EXPECT_EQ(reread->objectForKey(SimpleNetworking::kStoredCacheSaveKey), expected);
    EXPECT_EQ(reread->objectForKey(SimpleNetworking::kStoredCacheLoadKey), entry);
  }
}

TEST_F(CacheListTest, NonDictionaryUnderTheLoadKeyGivesAnEmptyList) {
  setStored(Value::array({"http://a/"}), SimpleNetworking::kStoredCacheLoadKey);
  EXPECT_EQ(storedList(), Value::object());
}

}  // namespace
}  // namespace quorvia::testing
