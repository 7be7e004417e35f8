// The cached GETs: URL cache hits and misses, the expiry list, its dates and
// its persistence in the user defaults.

#include <cstdlib>
#include <ctime>
#include <limits>

#include "networking/NetworkingTest.h"
#include "networking/RawHttpServer.h"
#include "quorvia/platform/NotificationCenter.h"
#include "platform/URLCache.h"
#include "platform/UserDefaults.h"

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

  static void storeInSharedCache(const std::string& url, const std::string& body) {
    platform::CachedURLResponse cached;
    cached.response.statusCode = 200;
    cached.data.assign(body.begin(), body.end());
    platform::URLCache::sharedURLCache()->storeCachedResponse(
        cached, platform::URLRequest::requestWithURL(platform::URLWithString(url)));
  }

  static std::optional<std::string> cachedBody(const std::string& url) {
    const auto cached = platform::URLCache::sharedURLCache()->cachedResponseForRequest(
        platform::URLRequest::requestWithURL(platform::URLWithString(url)));
    if (!cached) return std::nullopt;
    return std::string(cached->data.begin(), cached->data.end());
  }

  std::string expiryIn(int seconds) const {
    auto& client = SimpleNetworking::shared();
    return client.getNSStringFromNSDate(
        std::make_shared<const platform::SystemTime>(wallNow_ + std::chrono::seconds(seconds)),
        SimpleNetworking::kExpiryFormat);
  }
};

TEST_F(CacheListTest, FirstUseInstallsTheSharedCacheAndCapacitiesWrapIn32Bits) {
  SimpleNetworking::shared();
  EXPECT_EQ(platform::URLCache::sharedURLCache()->memoryCapacity(), 335544320u);
  EXPECT_EQ(platform::URLCache::sharedURLCache()->diskCapacity(), 671088640u);
  const std::vector<std::pair<std::int32_t, std::int64_t>> cases = {
      {320, 335544320},  {2047, 2146435072}, {2048, -2147483648LL},
      {4096, 0},         {4097, 1048576},    {-1, -1048576},
  };
  for (const auto& [megabytes, bytes] : cases) {
    EXPECT_EQ(SimpleNetworking::capacityInBytes(megabytes), bytes) << megabytes;
  }
  SimpleNetworking::setCacheSizeMemoryCapacityInMB(2048, 4096);
  EXPECT_EQ(platform::URLCache::sharedURLCache()->memoryCapacity(), 0xFFFFFFFF80000000u);
  EXPECT_EQ(platform::URLCache::sharedURLCache()->diskCapacity(), 0u);
}

TEST_F(CacheListTest, CachedAnswerIsGivenBeforeTheCallReturns) {
  RawHttpServer server;
  SimpleNetworking::shared();
  const std::string url = server.url("/cached path");
  storeInSharedCache(server.url("/cached%20path"), "{\"cached\":1}");

  auto outcome = std::make_shared<Outcome>();
  SimpleNetworking::getJsonCachedFromURL(url, std::nullopt, 60, recordJson(outcome));
  EXPECT_EQ(outcome->calls, 1);
  EXPECT_EQ(outcome->result, (Value{{"cached", 1}}));
  EXPECT_FALSE(outcome->error);
  drain();
  EXPECT_EQ(outcome->calls, 1);
  EXPECT_EQ(server.requestCount(), 0u);
  EXPECT_EQ(SimpleNetworking::shared().allNetworkCacheURLs(),
            (Value{{server.url("/cached%20path"), expiryIn(60)}}));
}

TEST_F(CacheListTest, StaleEntryGoesToTheNetworkAndStoresTheFreshAnswer) {
  RawHttpServer server;
  const std::string url = server.url("/stale");
  // An expiry that does not parse (another locale wrote it) counts as past.
  platform::UserDefaults::standardUserDefaults().setObject(
      Value{{url, "Mär 21 2026 12:00:00:0000"}}, SimpleNetworking::kStoredCacheLoadKey);
  SimpleNetworking::shared();
  storeInSharedCache(url, "{\"old\":1}");

  auto outcome = std::make_shared<Outcome>();
  SimpleNetworking::getJsonCachedFromURL(url, std::nullopt, 30, recordJson(outcome));
  EXPECT_EQ(outcome->calls, 0);
  ASSERT_TRUE(waitFor(outcome));
  drain();
  EXPECT_EQ(outcome->calls, 1);
  EXPECT_EQ(outcome->result, (Value{{"ok", 1}}));
  EXPECT_EQ(server.requestCount(), 1u);
  EXPECT_EQ(cachedBody(url), "{\"ok\":1}");
  EXPECT_EQ(SimpleNetworking::shared().allNetworkCacheURLs()[url], expiryIn(30));
}

TEST_F(CacheListTest, MissStoresTheAnswerEvenWithAnErrorStatus) {
  RawHttpServer server;
  server.setAnswer(500, "text/html", "<html>down</html>");
  const std::string url = server.url("/miss");
  SimpleNetworking::shared();
  auto outcome = std::make_shared<Outcome>();
  SimpleNetworking::getJsonCachedFromURL(url, Value{{"ignored", 1}}, 10, recordJson(outcome));
  ASSERT_TRUE(waitFor(outcome));
  EXPECT_FALSE(outcome->result);
  EXPECT_FALSE(outcome->error);
  EXPECT_EQ(cachedBody(url), "<html>down</html>");
  EXPECT_EQ(server.requests().at(0).target, "/miss");
  EXPECT_EQ(server.requests().at(0).body, "");
}

TEST_F(CacheListTest, ExpiryIsNowPlusTheLifetimeTruncatedAndSaturated) {
  SimpleNetworking::shared();
  std::string refused;
  {
    RawHttpServer gone;
    refused = gone.url("/e");
  }
  const std::vector<std::pair<double, int>> cases = {
      {60, 60},
      {2.9, 2},
      {-5, -5},
      {-2.9, -2},
      {0, 0},
      {1e12, std::numeric_limits<std::int32_t>::max()},
      {-1e12, std::numeric_limits<std::int32_t>::min()},
  };
  int i = 0;
  for (const auto& [lifetime, seconds] : cases) {
    const std::string url = refused + std::to_string(i++);
    auto outcome = std::make_shared<Outcome>();
    SimpleNetworking::getJsonCachedFromURL(url, std::nullopt, lifetime, recordJson(outcome));
    // The entry moves forward before the request is sent, even when it fails.
    EXPECT_EQ(SimpleNetworking::shared().allNetworkCacheURLs()[url], expiryIn(seconds)) << lifetime;
    ASSERT_TRUE(waitFor(outcome));
    EXPECT_TRUE(outcome->error);
  }
}

TEST_F(CacheListTest, ExpiryStringsRoundTripToTheMillisecond) {
  auto& client = SimpleNetworking::shared();
  EXPECT_EQ(client.getCurrentTimeInNSStringWithFormat(SimpleNetworking::kExpiryFormat),
            "Nov 21 2026 12:00:00:0000");
  const auto instant = std::make_shared<const platform::SystemTime>(
      wallNow_ + std::chrono::microseconds(123456789));
  const std::string text = client.getNSStringFromNSDate(instant, SimpleNetworking::kExpiryFormat);
  EXPECT_EQ(text, "Nov 21 2026 12:02:03:4560");
  const auto back = client.getNSDateFromNSString(text, SimpleNetworking::kExpiryFormat);
  ASSERT_TRUE(back);
  EXPECT_EQ(*back, wallNow_ + std::chrono::milliseconds(123456));
  EXPECT_EQ(*client.addSeconds(-5, back), *back - std::chrono::seconds(5));

  for (const std::string bad : {"", "Nov 21 2026", "Mär 21 2026 12:00:00:0000", "garbage",
                                "Nov 21 2026 12:00:00:0000 trailing"}) {
    EXPECT_FALSE(client.getNSDateFromNSString(bad, SimpleNetworking::kExpiryFormat)) << bad;
  }
  EXPECT_TRUE(client.isPastTime(nullptr));
}

TEST_F(CacheListTest, ListIsLoadedFromOneKeyAndSavedUnderTheOther) {
  platform::UserDefaults::standardUserDefaults().setObject(
      Value{{"http://a/", "Nov 21 2026 12:00:00:0000"}}, SimpleNetworking::kStoredCacheSaveKey);
  platform::UserDefaults::standardUserDefaults().synchronize();
  auto& client = SimpleNetworking::shared();
  // What was saved before the restart is not read back.
  EXPECT_EQ(client.allNetworkCacheURLs(), Value::object());

  std::string refused;
  {
    RawHttpServer gone;
    refused = gone.url("/n");
  }
  auto outcome = std::make_shared<Outcome>();
  SimpleNetworking::getJsonCachedFromURL(refused, std::nullopt, 5, recordJson(outcome));
  ASSERT_TRUE(waitFor(outcome));
  const Value expected = {{refused, expiryIn(5)}};
  for (const char* name : {platform::UIApplicationWillResignActiveNotification,
                           platform::UIApplicationDidEnterBackgroundNotification,
                           platform::UIApplicationWillTerminateNotification}) {
    SCOPED_TRACE(name);
    std::filesystem::remove(dataDir_ / "data" / "UserDefaults.qvka");
    platform::NotificationCenter::defaultCenter().postNotificationName(name);
    auto reread = platform::makeFileUserDefaults(dataDir_ / "data" / "UserDefaults.qvka");
    EXPECT_EQ(reread->objectForKey(SimpleNetworking::kStoredCacheSaveKey), expected);
    EXPECT_FALSE(reread->objectForKey(SimpleNetworking::kStoredCacheLoadKey));
  }
  platform::NotificationCenter::defaultCenter().postNotificationName(
      platform::UIApplicationDidBecomeActiveNotification);
}

TEST_F(CacheListTest, StoredListUnderTheLoadKeyIsUsedWhenItIsADictionary) {
  platform::UserDefaults::standardUserDefaults().setObject(
      Value{{"http://127.0.0.1:1/x", "Nov 21 2026 12:00:00:0000"}},
      SimpleNetworking::kStoredCacheLoadKey);
  EXPECT_EQ(SimpleNetworking::shared().allNetworkCacheURLs(),
            (Value{{"http://127.0.0.1:1/x", "Nov 21 2026 12:00:00:0000"}}));
}

TEST_F(CacheListTest, NonDictionaryUnderTheLoadKeyGivesAnEmptyList) {
  platform::UserDefaults::standardUserDefaults().setObject(Value::array({"http://a/"}),
                                                           SimpleNetworking::kStoredCacheLoadKey);
  EXPECT_EQ(SimpleNetworking::shared().allNetworkCacheURLs(), Value::object());
}

TEST_F(CacheListTest, ArchiveRoundTripsThroughTheUserDefaults) {
  auto& client = SimpleNetworking::shared();
  const Value object = {{"list", Value::array({1, "two", nullptr})}, {"n", 2.5}};
  EXPECT_TRUE(client.archive(object, "archived"));
  EXPECT_EQ(client.unarchiveForKey("archived"), object);
  EXPECT_TRUE(client.archive(std::nullopt, "archived"));
  EXPECT_FALSE(client.unarchiveForKey("archived"));
  platform::UserDefaults::standardUserDefaults().setObject(Value("not data"), "plain");
  EXPECT_FALSE(client.unarchiveForKey("plain"));
}

}  // namespace
}  // namespace quorvia::testing
