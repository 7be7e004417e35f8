#pragma once
/// \file
/// The URL cache (NSURLCache, NSCachedURLResponse): answers kept by request
/// URL in a memory LRU and an on-disk SQLite store, each bounded by its own
/// capacity in bytes.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>

#include "quorvia/export.h"
#include "platform/URLSession.h"

namespace quorvia::platform {

/// Where a cached answer may be kept (NSURLCacheStoragePolicy).
enum class URLCacheStoragePolicy { kAllowed = 0, kAllowedInMemoryOnly = 1, kNotAllowed = 2 };

/// One cached answer: the response, its body and where it may be kept.
struct QUORVIA_EXPORT CachedURLResponse {
  HTTPURLResponse response;
  Bytes data;
  URLCacheStoragePolicy storagePolicy = URLCacheStoragePolicy::kAllowed;
};

/// A URL cache. Thread-safe. Entries are keyed by the request's URL text;
/// requests without a URL are never cached. The least recently used entries
/// leave memory, and the disk store, when a capacity would be exceeded; an
/// answer larger than a capacity is not kept there at all. A disk store that
/// cannot be opened or read is logged and the cache keeps to memory.
class QUORVIA_EXPORT URLCache final {
 public:
  /// A cache of the given capacities. `diskPath` nullopt means the default
  /// store, "URLCache.sqlite" in the data directory; it is opened on first use.
  URLCache(std::uint64_t memoryCapacity, std::uint64_t diskCapacity,
           std::optional<std::filesystem::path> diskPath);
  ~URLCache();
  URLCache(const URLCache&) = delete;
  URLCache& operator=(const URLCache&) = delete;

  /// The process's shared cache (made with 4 MB memory, 20 MB disk when
  /// none was installed) and its replacement, as a whole.
  static std::shared_ptr<URLCache> sharedURLCache();
  static void setSharedURLCache(std::shared_ptr<URLCache> cache);

  std::uint64_t memoryCapacity() const { return memoryCapacity_; }
  std::uint64_t diskCapacity() const { return diskCapacity_; }
  /// Bytes of bodies held in memory.
  std::uint64_t currentMemoryUsage() const;

  /// The answer kept for the request's URL, or nullopt.
  std::optional<CachedURLResponse> cachedResponseForRequest(const URLRequest& request);
  /// Keeps `response` for the request's URL, replacing an earlier answer.
  void storeCachedResponse(const CachedURLResponse& response, const URLRequest& request);
  /// As above, taking the body over instead of copying it.
  void storeCachedResponse(CachedURLResponse&& response, const URLRequest& request);

 private:
  struct State;
  const std::uint64_t memoryCapacity_;
  const std::uint64_t diskCapacity_;
  std::unique_ptr<State> state_;
};

}  // namespace quorvia::platform
