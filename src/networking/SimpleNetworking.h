#pragma once
/// \file
/// SimpleNetworking: the SDK's small REST client. Class operations forward to
/// one shared instance; JSON and image results; form-encoded and multipart
/// bodies; process-wide header fields; a response cache with a per-URL expiry
/// list.

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "quorvia/export.h"
#include "quorvia/platform/Clock.h"
#include "quorvia/platform/Error.h"
#include "platform/Image.h"
#include "platform/URLSession.h"
#include "quorvia/platform/Value.h"

namespace quorvia {

/// The request-type codes of the central method ("GET", "POST", "PUT",
/// "DELETE"); any other code sends "GET".
enum class RequestType : int { kGet = 0, kPost = 1, kPut = 2, kDelete = 3 };

/// The REST client. Every class operation may be called from any thread.
/// Each request calls its completion exactly once: on the main queue for a
/// network answer, or synchronously inside the call for a cache hit. A
/// transport error gives (nil, error); otherwise the decoded result and nil,
/// or (nil, nil) when the body does not decode. HTTP status codes are never
/// examined. The shared instance lives for the rest of the process.
class QUORVIA_EXPORT SimpleNetworking final {
 public:
  /// Completion of the JSON operations: the decoded JSON value or an error.
  using Returned = std::function<void(std::optional<platform::Value> result,
                                      std::optional<platform::Error> error)>;
  /// Completion of the image getters: the decoded image or an error.
  using ImageReturned = std::function<void(std::shared_ptr<platform::Image> result,
                                           std::optional<platform::Error> error)>;
  /// Completion of the central method: the raw body or an error.
  using DataReturned = std::function<void(std::optional<platform::Bytes> data,
                                          std::optional<platform::Error> error)>;
  /// A date object (NSDate): separately allocated, compared by identity in
  /// isPastTime. nullptr is nil.
  using Date = std::shared_ptr<const platform::SystemTime>;

  /// The user-defaults key the cache list is loaded from.
  static constexpr const char* kStoredCacheLoadKey = "SimpleNetworkingStoredCacheURLs";
  /// The user-defaults key the cache list is saved under.
  static constexpr const char* kStoredCacheSaveKey = "networkingStoredCache";
  /// The format of the cache list's expiry strings.
  static constexpr const char* kExpiryFormat = "MMM dd yyyy HH:mm:ss:SSSS";

  // ---- Class operations ----

  /// The one instance, made on first use under a once-only guard: it
  /// installs a 320 MB / 640 MB shared URL cache, opens its session on the
  /// process's transport and loads the cache list.
  static SimpleNetworking& shared();
  /// Replaces (does not merge) the header fields sent with every request
  /// built afterwards. A non-dictionary is logged and taken as empty.
  static void setHeaderFieldsWithDictionary(const platform::Value& headers);
  /// Installs a new shared URL cache of the given capacities in megabytes,
  /// multiplied in wrapping 32-bit arithmetic (see capacityInBytes).
  static void setCacheSizeMemoryCapacityInMB(std::int32_t memoryCapacity,
                                             std::int32_t diskCapacity);
  /// Megabytes times 1024 * 1024, wrapped modulo 2^32, read as a signed
  /// 32-bit number and widened: 2048 gives -2147483648, 4096 gives 0.
  static std::int64_t capacityInBytes(std::int32_t megabytes);

  /// GET, answered from the URL cache while the URL's expiry allows; `param`
  /// is never sent.
  static void getJsonCachedFromURL(const std::string& url, const std::optional<platform::Value>& param,
                                   double cacheExpireInSeconds, Returned returned);
  /// GET from the network; `param` is never sent.
  static void getJsonCachelessFromURL(const std::string& url,
                                      const std::optional<platform::Value>& param,
                                      Returned returned);
  /// As getJsonCachedFromURL, decoding the body as an image.
  static void getImageCachedFromURL(const std::string& url, const std::optional<platform::Value>& param,
                                    double cacheExpireInSeconds, ImageReturned returned);
  /// As getJsonCachelessFromURL, decoding the body as an image.
  static void getImageCachelessFromURL(const std::string& url,
                                       const std::optional<platform::Value>& param,
                                       ImageReturned returned);
  /// POST with the parameter string as body and no Content-Type of its own.
  static void postToURL(const std::string& url, const std::optional<platform::Value>& param,
                        Returned returned);
  /// POST of a multipart body carrying the image, followed by the
  /// parameter string.
  static void postImageToURL(const std::string& url, const std::optional<platform::Value>& param,
                             const platform::Bytes& imageInNSData, const std::string& imageName,
                             const std::string& imageExtension, Returned returned);
  /// PUT with a form-encoded body.
  static void putToURL(const std::string& url, const std::optional<platform::Value>& param,
                       Returned returned);
  /// Also a PUT with a form-encoded body: code 2, deliberately (no public
  /// operation sends "DELETE").
  static void deleteFromURL(const std::string& url, const std::optional<platform::Value>& param,
                            Returned returned);

  // ---- Instance operations ----

  /// The header fields (a copy). Thread-safe.
  platform::Value headerFields() const;
  /// Replaces the header fields. Thread-safe.
  void setHeaderFields(platform::Value headers);

  /// The central method: builds the request and sends it, or answers it from
  /// the URL cache when `isCached`. Callable from any thread; `returned`
  /// runs once, on the main queue or (cache hit) before this returns.
  void callNSURLSessionWithType(int type, const std::string& url,
                                const std::optional<platform::Value>& param, bool isCached,
                                double cacheExpireInSeconds, bool isImage,
                                const std::string& imageName, const std::string& imageExtension,
                                const std::optional<platform::Bytes>& imageInNSData,
                                DataReturned returned);
  /// The central method with a reader of the answer's body that runs where
  /// the body arrived (the JSON operations decode there).
  void callWithBodyReader(int type, const std::string& url,
                          const std::optional<platform::Value>& param, bool isCached,
                          double cacheExpireInSeconds, bool isImage, const std::string& imageName,
                          const std::string& imageExtension,
                          const std::optional<platform::Bytes>& imageInNSData,
                          DataReturned returned, platform::URLSession::BodyReader readBody);
  /// The request the central method sends for these arguments.
  platform::URLRequest requestWithType(int type, const std::string& url,
                                       const std::optional<platform::Value>& param, bool isImage,
                                       const std::string& imageName,
                                       const std::string& imageExtension,
                                       const std::optional<platform::Bytes>& imageInNSData) const;
  /// "GET", "POST", "PUT", "DELETE" for codes 0 to 3; "GET" for any other.
  static std::string getRESTfulTypeStringForType(int type);
  /// "k=v&k=v" in the dictionary's order, values by their description, null
  /// values left out, nothing escaped. A non-dictionary gives "" (logged).
  static std::string getParamInString(const platform::Value& param);

  // ---- The cache list ----

  /// The cache list: URL string to expiry string (a copy). Thread-safe.
  platform::Value allNetworkCacheURLs() const;
  /// Loads the list and registers for the three save notifications.
  void setupCaching();
  /// Writes the list to the user defaults under kStoredCacheSaveKey.
  void saveCacheListToUserDefault();
  /// Archives `object` into the user defaults under `key` (nil removes it);
  /// returns the result of synchronizing.
  bool archive(const std::optional<platform::Value>& object, const std::string& key);
  /// The value archived under `key`, or nil.
  std::optional<platform::Value> unarchiveForKey(const std::string& key);
  /// The date written with `format` in the current locale and time zone.
  std::string getNSStringFromNSDate(const Date& date, const std::string& format) const;
  /// The date `text` stands for in `format`, or nil.
  Date getNSDateFromNSString(const std::string& text, const std::string& format) const;
  std::string selfFormatNSDate(const Date& date, const std::string& format) const;
  Date selfGetNSDateFromString(const std::string& text, const std::string& format) const;
  /// The current instant written with `format`.
  std::string getCurrentTimeInNSStringWithFormat(const std::string& format) const;
  /// `date` moved by `seconds`.
  Date addSeconds(std::int32_t seconds, const Date& date) const;
  /// Whether the expiry `date` counts as past. Deliberately compares the
  /// addresses of `date` and of a freshly parsed "now", not the instants:
  /// cached answers outlive their expiry depending on memory layout, and a
  /// nil date is always past.
  bool isPastTime(const Date& date) const;

  SimpleNetworking(const SimpleNetworking&) = delete;
  SimpleNetworking& operator=(const SimpleNetworking&) = delete;

 private:
  SimpleNetworking();
  /// Applies the expiry rules to `url`; true when a cached answer may be used.
  bool checkAndRenewExpiry(const std::string& url, double cacheExpireInSeconds);

  std::unique_ptr<platform::URLSession> session_;
  mutable std::mutex headerMu_;
  platform::Value headerFields_;  // guarded by headerMu_
  mutable std::mutex cacheListMu_;
  platform::Value allNetworkCacheURLs_;  // guarded by cacheListMu_
};

}  // namespace quorvia
