// The platform stores under the HTTP client: user defaults, URL cache, images.

#include <fstream>

#include "platform/Image.h"
#include "platform/KeyedArchiver.h"
#include "platform/URLCache.h"
#include "platform/UserDefaults.h"
#include "support/PlatformTest.h"

namespace quorvia::testing {
namespace {

using platform::Value;

class PlatformNetTest : public PlatformTest {
 protected:
  std::filesystem::path file(const std::string& name) const { return dataDir_ / name; }

  static void writeFile(const std::filesystem::path& path, const platform::Bytes& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  }

  static platform::URLRequest requestFor(const std::string& url) {
    return platform::URLRequest::requestWithURL(platform::URLWithString(url));
  }

  static platform::CachedURLResponse answer(std::size_t size, char fill) {
    platform::CachedURLResponse cached;
    cached.response.statusCode = 200;
    cached.response.allHeaderFields = {{"Content-Type", "application/json"}};
    cached.data.assign(size, static_cast<std::uint8_t>(fill));
    return cached;
  }
};

TEST_F(PlatformNetTest, UserDefaultsSurviveARestartAndWriteAtomically) {
  const auto path = file("defaults/UserDefaults.qvka");
  {
    auto defaults = platform::makeFileUserDefaults(path);
    defaults->setObject(Value{{"a", 1}}, "dict");
    defaults->setObject(Value("text"), "string");
    defaults->setObject(platform::dataValue({0, 1, 2}), "data");
    EXPECT_TRUE(defaults->synchronize());
  }
  auto reread = platform::makeFileUserDefaults(path);
  EXPECT_EQ(reread->objectForKey("dict"), (Value{{"a", 1}}));
  EXPECT_EQ(reread->dictionaryForKey("dict"), (Value{{"a", 1}}));
  EXPECT_FALSE(reread->dictionaryForKey("string"));
  EXPECT_EQ(reread->objectForKey("data"), platform::dataValue({0, 1, 2}));
  EXPECT_FALSE(reread->objectForKey("missing"));
  reread->setObject(std::nullopt, "dict");
  EXPECT_FALSE(reread->objectForKey("dict"));
  std::size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(path.parent_path())) {
    ++files;
    EXPECT_EQ(entry.path().filename(), "UserDefaults.qvka");
  }
  EXPECT_EQ(files, 1u);
}

TEST_F(PlatformNetTest, UnreadableUserDefaultsFileReadsAsEmptyAndIsKeptAside) {
  const std::vector<std::pair<std::string, platform::Bytes>> cases = {
      {"garbage", {'n', 'o', 't', ' ', 'a', 'n', ' ', 'a', 'r', 'c', 'h', 'i', 'v', 'e'}},
      {"array", platform::archivedDataWithRootObject(Value::array({1, 2}))},
      {"truncated", [] {
         auto bytes = platform::archivedDataWithRootObject(Value{{"key", "value"}});
         bytes.resize(bytes.size() - 3);
         return bytes;
       }()},
      {"empty", {}},
  };
  for (const auto& [name, bytes] : cases) {
    SCOPED_TRACE(name);
    const auto path = file(name + ".qvka");
    writeFile(path, bytes);
    auto defaults = platform::makeFileUserDefaults(path);
    EXPECT_FALSE(defaults->objectForKey("key"));
    EXPECT_TRUE(std::filesystem::exists(path.string() + ".corrupt"));
    defaults->setObject(Value(1), "key");
    EXPECT_TRUE(defaults->synchronize());
    EXPECT_EQ(platform::makeFileUserDefaults(path)->objectForKey("key"), Value(1));
  }
  EXPECT_FALSE(log_.lines().empty());
}

TEST_F(PlatformNetTest, UrlCacheEvictsLeastRecentlyUsedWithinItsCapacities) {
  const auto path = file("cache/URLCache.sqlite");
  {
    platform::URLCache cache(250, 250, path);
    cache.storeCachedResponse(answer(100, 'a'), requestFor("http://h/a"));
    cache.storeCachedResponse(answer(100, 'b'), requestFor("http://h/b"));
    ASSERT_TRUE(cache.cachedResponseForRequest(requestFor("http://h/a")));  // a is now newer
    cache.storeCachedResponse(answer(100, 'c'), requestFor("http://h/c"));
    EXPECT_LE(cache.currentMemoryUsage(), 250u);
    EXPECT_TRUE(cache.cachedResponseForRequest(requestFor("http://h/a")));
    EXPECT_TRUE(cache.cachedResponseForRequest(requestFor("http://h/c")));
    // Too large for either store: not kept at all.
    cache.storeCachedResponse(answer(400, 'x'), requestFor("http://h/x"));
    EXPECT_FALSE(cache.cachedResponseForRequest(requestFor("http://h/x")));
    // No URL, no caching.
    cache.storeCachedResponse(answer(1, 'n'), requestFor("not a url"));
    EXPECT_FALSE(cache.cachedResponseForRequest(requestFor("not a url")));
  }
  // The disk store orders by its own use (memory hits do not reach it), so
  // the first answer written left it first.
  platform::URLCache reopened(250, 250, path);
  const auto b = reopened.cachedResponseForRequest(requestFor("http://h/b"));
  ASSERT_TRUE(b);
  EXPECT_EQ(b->data, platform::Bytes(100, 'b'));
  EXPECT_EQ(b->response.statusCode, 200);
  EXPECT_EQ(b->response.allHeaderFields,
            (std::vector<platform::HTTPHeader>{{"Content-Type", "application/json"}}));
  EXPECT_FALSE(reopened.cachedResponseForRequest(requestFor("http://h/a")));
  EXPECT_TRUE(reopened.cachedResponseForRequest(requestFor("http://h/c")));
}

TEST_F(PlatformNetTest, UrlCacheWithAnUnreadableStoreKeepsToMemory) {
  const auto path = file("broken.sqlite");
  writeFile(path, platform::Bytes(4096, 0x5a));
  platform::URLCache cache(1000, 1000, path);
  cache.storeCachedResponse(answer(10, 'm'), requestFor("http://h/m"));
  EXPECT_TRUE(cache.cachedResponseForRequest(requestFor("http://h/m")));
  EXPECT_EQ(std::filesystem::file_size(path), 4096u);
  EXPECT_FALSE(log_.lines().empty());
}

TEST_F(PlatformNetTest, UndecodableImageBytesGiveNil) {
  for (const auto& bytes : {platform::Bytes{}, platform::Bytes{0x89, 'P', 'N', 'G'},
                            platform::Bytes(64, 0xff)}) {
    EXPECT_FALSE(platform::imageWithData(bytes));
  }
}

}  // namespace
}  // namespace quorvia::testing
