// The platform stores under the HTTP client: user defaults, URL cache, images.

#include <stb_image_write.h>
#include <sys/stat.h>

#include <fstream>
#include <tuple>

#include "networking/NetworkingTest.h"
#include "platform/DateFormatter.h"
#include "platform/Image.h"
#include "platform/KeyedArchiver.h"
#include "platform/URLCache.h"
#include "platform/URLSession.h"
#include "platform/UserDefaults.h"

namespace quorvia::testing {

platform::Bytes encodedImage(const std::string& format, int width, int height) {
  const platform::Bytes pixels(static_cast<std::size_t>(width) * height, 0x80);
  platform::Bytes out;
  const auto append = [](void* context, void* data, int size) {
    auto& sink = *static_cast<platform::Bytes*>(context);
    const auto* bytes = static_cast<std::uint8_t*>(data);
    sink.insert(sink.end(), bytes, bytes + size);
  };
  if (format == "png") stbi_write_png_to_func(append, &out, width, height, 1, pixels.data(), width);
  if (format == "jpg") stbi_write_jpg_to_func(append, &out, width, height, 1, pixels.data(), 90);
  if (format == "tga") stbi_write_tga_to_func(append, &out, width, height, 1, pixels.data());
  if (format == "bmp") stbi_write_bmp_to_func(append, &out, width, height, 1, pixels.data());
  return out;
}

namespace {

using platform::Value;

class PlatformNetTest : public PlatformTest {
 protected:
  static void writeFile(const std::filesystem::path& path, const platform::Bytes& bytes) {
    std::ofstream(path, std::ios::binary) << std::string(bytes.begin(), bytes.end());
  }
  static platform::URLRequest requestFor(const std::string& url) {
    return platform::URLRequest::requestWithURL(platform::URLWithString(url));
  }
  static bool has(platform::URLCache& cache, const std::string& url) {
    return static_cast<bool>(cache.cachedResponseForRequest(requestFor(url)));
  }
  static platform::CachedURLResponse answer(std::size_t size, char fill) {
    return {{"", 200, {{"Content-Type", "application/json"}}},
            platform::Bytes(size, static_cast<std::uint8_t>(fill))};
  }
};

TEST_F(PlatformNetTest, UnreadableUserDefaultsFileReadsAsEmptyAndIsKeptAside) {
  const auto archived = platform::archivedDataWithRootObject(Value{{"key", "value"}});
  // A few hundred KB that once overflowed the stack at every launch.
  platform::Bytes nested = {'q', 'v', 'k', 'a', 1, 0xA1, 0x63, 'k', 'e', 'y'};
  nested.insert(nested.end(), 200000, 0x81);
  nested.push_back(0x00);
  const std::vector<std::pair<std::string, platform::Bytes>> cases = {
      {"garbage", platform::Bytes(64, 0x5a)},
      {"array", platform::archivedDataWithRootObject(Value::array({1, 2}))},
      {"truncated", platform::Bytes(archived.begin(), archived.end() - 3)},
      {"empty", {}},
      {"nested 200000 deep", nested},
  };
  for (const auto& [name, bytes] : cases) {
    SCOPED_TRACE(name);
    const auto path = dataDir_ / (name + ".qvka");
    writeFile(path, bytes);
    auto defaults = platform::makeFileUserDefaults(path);
    EXPECT_FALSE(defaults->objectForKey("key"));
    EXPECT_TRUE(std::filesystem::exists(path.string() + ".corrupt"));
    // The next save writes a good file again, whole.
    defaults->setObject(Value(1), "key");
    defaults->setObject(platform::dataValue({0, 1}), "data");
    defaults->setObject(std::nullopt, "data");
    EXPECT_TRUE(defaults->synchronize());
    const auto reread = platform::makeFileUserDefaults(path);
    EXPECT_EQ(reread->objectForKey("key"), Value(1));
    EXPECT_FALSE(reread->dictionaryForKey("key"));
    EXPECT_FALSE(reread->objectForKey("data"));
  }
  EXPECT_FALSE(log_.lines().empty());
}

TEST_F(PlatformNetTest, UrlCacheEvictsLeastRecentlyUsedAndKeepsToMemoryWithoutItsStore) {
  const auto path = dataDir_ / "cache/URLCache.sqlite";
  {
    platform::URLCache cache(250, 250, path);
    cache.storeCachedResponse(answer(100, 'a'), requestFor("http://h/a"));
    cache.storeCachedResponse(answer(100, 'b'), requestFor("http://h/b"));
    ASSERT_TRUE(has(cache, "http://h/a"));  // a is now newer
    cache.storeCachedResponse(answer(100, 'c'), requestFor("http://h/c"));
    EXPECT_LE(cache.currentMemoryUsage(), 250u);
    EXPECT_TRUE(has(cache, "http://h/a") && has(cache, "http://h/c"));
    cache.storeCachedResponse(answer(400, 'x'), requestFor("http://h/x"));
    EXPECT_FALSE(has(cache, "http://h/x")) << "too large for either store";
    cache.storeCachedResponse(answer(1, 'n'), requestFor("not a url"));
    EXPECT_FALSE(has(cache, "not a url"));
  }
  // The disk store orders by its own use (memory hits do not reach it), so
  // the first answer written left it first.
  platform::URLCache reopened(250, 250, path);
  const auto b = reopened.cachedResponseForRequest(requestFor("http://h/b"));
  ASSERT_TRUE(b);
  EXPECT_EQ(b->data, platform::Bytes(100, 'b'));
  EXPECT_EQ(b->response.statusCode, 200);
  EXPECT_EQ(b->response.allHeaderFields, answer(0, 0).response.allHeaderFields);
  EXPECT_FALSE(has(reopened, "http://h/a"));
  EXPECT_TRUE(has(reopened, "http://h/c"));

  // A store that cannot be read is left alone, and the cache keeps to memory.
  const auto broken = dataDir_ / "broken.sqlite";
  writeFile(broken, platform::Bytes(4096, 0x5a));
  platform::URLCache memoryOnly(1000, 1000, broken);
  memoryOnly.storeCachedResponse(answer(10, 'm'), requestFor("http://h/m"));
  EXPECT_TRUE(has(memoryOnly, "http://h/m"));
  EXPECT_EQ(std::filesystem::file_size(broken), 4096u);
}

// Network bytes reach the decoder: only the formats the SDK shows, and never
// more pixels than the cap (2^24), however small the file.
TEST_F(PlatformNetTest, OnlyPngJpegAndGifWithinThePixelCapDecode) {
  using namespace std::string_literals;
  const std::string gif =
      "GIF89a\x01\x00\x01\x00\x80\x00\x00\xff\xff\xff\x00\x00\x00"
      ",\x00\x00\x00\x00\x01\x00\x01\x00\x00\x02\x02\x44\x01\x00;"s;
  const std::string pnm = "P5\n2 2\n255\n\x01\x02\x03\x04";
  const std::tuple<const char*, platform::Bytes, bool> cases[] = {
      {"PNG", encodedImage("png", 3, 2), true},
      {"JPEG", encodedImage("jpg", 3, 2), true},
      {"GIF", platform::Bytes(gif.begin(), gif.end()), true},
      {"TGA", encodedImage("tga", 3, 2), false},
      {"BMP", encodedImage("bmp", 3, 2), false},
      {"PNM", platform::Bytes(pnm.begin(), pnm.end()), false},
      {"PNG of 4097 x 4097, one pixel over the cap", encodedImage("png", 4097, 4097), false},
      {"empty", {}, false},
      {"PNG magic only", {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'}, false},
      {"noise", platform::Bytes(64, 0xff), false},
  };
  for (const auto& [name, bytes, decodes] : cases) {
    const auto image = platform::imageWithData(bytes);
    EXPECT_EQ(image != nullptr, decodes) << name;
    if (image) {
      EXPECT_EQ(image->rgba.size(), std::size_t{4} * image->width * image->height);
    }
  }
}

// An expiry stored by anyone may lie outside the instants the clock type can
// hold (its nanoseconds end in 2262): it reads as no date, never as garbage.
TEST_F(PlatformNetTest, DatesOutsideTheClockRangeAreNil) {
  platform::DateFormatter formatter;
  formatter.setDateFormat("yyyy-MM-dd HH:mm:ss");
  const std::pair<const char*, bool> cases[] = {
      {"2026-11-22 12:00:00", true},  {"2261-06-01 00:00:00", true},
      {"2263-01-01 00:00:00", false}, {"9999-12-31 23:59:59", false},
      {"1677-01-01 00:00:00", false}, {"123456789-01-01 00:00:00", false}};
  for (const auto& [text, parses] : cases)
    EXPECT_EQ(formatter.dateFromString(text).has_value(), parses) << text;
  const auto late = formatter.dateFromString("2261-06-01 00:00:00");
  ASSERT_TRUE(late);
  const auto date = std::make_shared<const platform::SystemTime>(*late);
  EXPECT_FALSE(SimpleNetworking::shared().addSeconds(INT32_MAX, date)) << "past the range: nil";
  EXPECT_TRUE(SimpleNetworking::shared().addSeconds(-5, date));
}

// Every file the SDK writes is 0600 in a 0700 directory, whatever the umask.
TEST_F(PlatformNetTest, FilesTheSdkWritesArePrivate) {
  ::umask(022);
  const auto dir = dataDir_ / "private";
  {
    auto defaults = platform::makeFileUserDefaults(dir / "UserDefaults.qvka");
    defaults->setObject(Value(1), "k");
    ASSERT_TRUE(defaults->synchronize());
    platform::URLCache cache(1000, 1000, dir / "URLCache.sqlite");
    cache.storeCachedResponse(answer(10, 'm'), requestFor("http://h/m"));
  }
  const auto modeOf = [](const std::filesystem::path& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? st.st_mode & 0777 : 0;
  };
  EXPECT_EQ(modeOf(dir), 0700u);
  std::size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    ++files;
    EXPECT_EQ(modeOf(entry.path()), 0600u) << entry.path();
  }
  EXPECT_GE(files, 2u);
}

// An answer past the body limit (16 MiB) fails with -1103 before it is held:
// refused from its Content-Length, or stopped when the running total passes.
TEST_F(PlatformNetTest, AnswersPastTheBodyLimitFailWithDataLengthExceedsMaximum) {
  constexpr std::size_t kLimit = 16u << 20;
  LoopbackServer server;
  server.setResponder([&](const RecordedRequest& request) {
    Reply reply;
    if (request.target == "/announced") reply.streamedBytes = std::size_t{64} << 20;
    if (request.target == "/streamed") reply.streamedBytes = kLimit + 64 * 1024;
    if (request.target == "/at-limit") reply.streamedBytes = kLimit;
    reply.announceLength = request.target == "/announced";
    return reply;
  });
  // Path, from the cache or not, and whether it exceeds.
  const std::tuple<std::string, bool, bool> cases[] = {{"/announced", false, true},
                                                       {"/streamed", false, true},
                                                       {"/streamed", true, true},
                                                       {"/at-limit", false, false}};
  for (const auto& [path, cached, exceeds] : cases) {
    SCOPED_TRACE(path + (cached ? " cached" : ""));
    std::optional<std::pair<std::optional<platform::Bytes>, std::optional<platform::Error>>> got;
    SimpleNetworking::shared().callNSURLSessionWithType(
        0, server.url(path), std::nullopt, cached, 60, false, "", "", std::nullopt,
        [&](auto data, auto e) { got.emplace(std::move(data), std::move(e)); });
    ASSERT_TRUE(loop_->runUntil([&] { return got.has_value(); }, platform::seconds(60)));
    const auto& [body, error] = *got;
    EXPECT_EQ(body.has_value(), !exceeds);
    EXPECT_EQ(body ? body->size() : 0, exceeds ? 0 : kLimit);
    ASSERT_EQ(error.has_value(), exceeds);
    if (exceeds) {
      EXPECT_EQ(error->domain, platform::NSURLErrorDomain);
      EXPECT_EQ(error->code, platform::NSURLErrorDataLengthExceedsMaximum);
      EXPECT_EQ(error->localizedDescription(), "data length exceeds maximum");
    }
  }
}

}  // namespace
}  // namespace quorvia::testing
