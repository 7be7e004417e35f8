// The shared instance, its class operations and the dispatch of requests.

#include "networking/SimpleNetworking.h"

#include <string_view>

#include "networking/URLText.h"
#include "platform/Log.h"
#include "platform/URLCache.h"

namespace quorvia {
namespace {

constexpr std::int32_t kMemoryCapacityMB = 320;
constexpr std::int32_t kDiskCapacityMB = 640;

std::optional<platform::Value> jsonFromData(const std::optional<platform::Bytes>& data) {
  if (!data) return std::nullopt;
  // A body that is not JSON gives nil and no error, as the JSON reader's
  // own error is dropped.
  return platform::parseJson(
      std::string_view(reinterpret_cast<const char*>(data->data()), data->size()));
}

// A JSON operation's completion, and the reader that decodes an answer's
// body where it arrived: a wide answer never holds the main queue while it is
// decoded. An answer from the cache is decoded in the completion.
struct JsonCompletion {
  SimpleNetworking::DataReturned returned;
  platform::URLSession::BodyReader readBody;
};

JsonCompletion jsonCompletion(SimpleNetworking::Returned returned) {
  auto decoded = std::make_shared<std::optional<std::optional<platform::Value>>>();
  auto readBody = [decoded](const platform::Bytes& body) { *decoded = jsonFromData(body); };
  auto done = [returned = std::move(returned), decoded](std::optional<platform::Bytes> data,
                                                        std::optional<platform::Error> error) {
    if (!returned) return;
    if (error) {
      returned(std::nullopt, std::move(error));
      return;
    }
    returned(*decoded ? std::move(**decoded) : jsonFromData(data), std::nullopt);
  };
  return {std::move(done), std::move(readBody)};
}

SimpleNetworking::DataReturned imageCompletion(SimpleNetworking::ImageReturned returned) {
  return [returned = std::move(returned)](std::optional<platform::Bytes> data,
                                          std::optional<platform::Error> error) {
    if (!returned) return;
    if (error) {
      returned(nullptr, std::move(error));
      return;
    }
    returned(data ? platform::imageWithData(*data) : nullptr, std::nullopt);
  };
}

}  // namespace

SimpleNetworking& SimpleNetworking::shared() {
  // Never torn down: observers and completions may reach it while the
  // process exits.
  static SimpleNetworking* const instance = new SimpleNetworking;
  return *instance;
}

SimpleNetworking::SimpleNetworking() : headerFields_(platform::Value::object()) {
  setCacheSizeMemoryCapacityInMB(kMemoryCapacityMB, kDiskCapacityMB);
  // The session's trust-challenge answer: every server certificate is used
  // as offered, unchecked.
  session_ = std::make_unique<platform::URLSession>(platform::ServerTrustPolicy::kAcceptAny);
  setupCaching();
}

void SimpleNetworking::setHeaderFieldsWithDictionary(const platform::Value& headers) {
  shared().setHeaderFields(headers);
}

void SimpleNetworking::setCacheSizeMemoryCapacityInMB(std::int32_t memoryCapacity,
                                                      std::int32_t diskCapacity) {
  // A negative widened capacity reads as a huge unsigned one, as it would
  // as the platform's unsigned capacity.
  platform::URLCache::setSharedURLCache(std::make_shared<platform::URLCache>(
      static_cast<std::uint64_t>(capacityInBytes(memoryCapacity)),
      static_cast<std::uint64_t>(capacityInBytes(diskCapacity)), std::nullopt));
}

platform::Value SimpleNetworking::headerFields() const {
  std::lock_guard lock(headerMu_);
  return headerFields_;
}

void SimpleNetworking::setHeaderFields(platform::Value headers) {
  if (!headers.is_object()) {
    platform::debugLog("SimpleNetworking: header fields are not a dictionary; none are sent: " +
                       platform::describe(headers));
    headers = platform::Value::object();
  }
  std::lock_guard lock(headerMu_);
  headerFields_ = std::move(headers);
}

void SimpleNetworking::getJsonCachedFromURL(const std::string& url,
                                            const std::optional<platform::Value>& param,
                                            double cacheExpireInSeconds, Returned returned) {
  auto json = jsonCompletion(std::move(returned));
  shared().callWithBodyReader(static_cast<int>(RequestType::kGet), url, param, true,
                              cacheExpireInSeconds, false, "", "", std::nullopt,
                              std::move(json.returned), std::move(json.readBody));
}

void SimpleNetworking::getJsonCachelessFromURL(const std::string& url,
                                               const std::optional<platform::Value>& param,
                                               Returned returned) {
  auto json = jsonCompletion(std::move(returned));
  shared().callWithBodyReader(static_cast<int>(RequestType::kGet), url, param, false, 0, false, "",
                              "", std::nullopt, std::move(json.returned), std::move(json.readBody));
}

void SimpleNetworking::getImageCachedFromURL(const std::string& url,
                                             const std::optional<platform::Value>& param,
                                             double cacheExpireInSeconds, ImageReturned returned) {
  shared().callNSURLSessionWithType(static_cast<int>(RequestType::kGet), url, param, true,
                                    cacheExpireInSeconds, false, "", "", std::nullopt,
                                    imageCompletion(std::move(returned)));
}

void SimpleNetworking::getImageCachelessFromURL(const std::string& url,
                                                const std::optional<platform::Value>& param,
                                                ImageReturned returned) {
  shared().callNSURLSessionWithType(static_cast<int>(RequestType::kGet), url, param, false, 0,
                                    false, "", "", std::nullopt,
                                    imageCompletion(std::move(returned)));
}

void SimpleNetworking::postToURL(const std::string& url,
                                 const std::optional<platform::Value>& param, Returned returned) {
  auto json = jsonCompletion(std::move(returned));
  shared().callWithBodyReader(static_cast<int>(RequestType::kPost), url, param, false, 0, false, "",
                              "", std::nullopt, std::move(json.returned), std::move(json.readBody));
}

void SimpleNetworking::postImageToURL(const std::string& url,
                                      const std::optional<platform::Value>& param,
                                      const platform::Bytes& imageInNSData,
                                      const std::string& imageName,
                                      const std::string& imageExtension, Returned returned) {
  auto json = jsonCompletion(std::move(returned));
  shared().callWithBodyReader(static_cast<int>(RequestType::kPost), url, param, false, 0, true,
                              imageName, imageExtension, imageInNSData, std::move(json.returned),
                              std::move(json.readBody));
}

void SimpleNetworking::putToURL(const std::string& url, const std::optional<platform::Value>& param,
                                Returned returned) {
  auto json = jsonCompletion(std::move(returned));
  shared().callWithBodyReader(static_cast<int>(RequestType::kPut), url, param, false, 0, false, "",
                              "", std::nullopt, std::move(json.returned), std::move(json.readBody));
}

void SimpleNetworking::deleteFromURL(const std::string& url,
                                     const std::optional<platform::Value>& param,
                                     Returned returned) {
  // Code 2 on purpose: a delete goes out as "PUT", and the service expects it.
  auto json = jsonCompletion(std::move(returned));
  shared().callWithBodyReader(static_cast<int>(RequestType::kPut), url, param, false, 0, false, "",
                              "", std::nullopt, std::move(json.returned), std::move(json.readBody));
}

void SimpleNetworking::callNSURLSessionWithType(int type, const std::string& url,
                                                const std::optional<platform::Value>& param,
                                                bool isCached, double cacheExpireInSeconds,
                                                bool isImage, const std::string& imageName,
                                                const std::string& imageExtension,
                                                const std::optional<platform::Bytes>& imageInNSData,
                                                DataReturned returned) {
  callWithBodyReader(type, url, param, isCached, cacheExpireInSeconds, isImage, imageName,
                     imageExtension, imageInNSData, std::move(returned), nullptr);
}

void SimpleNetworking::callWithBodyReader(
    int type, const std::string& url, const std::optional<platform::Value>& param, bool isCached,
    double cacheExpireInSeconds, bool isImage, const std::string& imageName,
    const std::string& imageExtension, const std::optional<platform::Bytes>& imageInNSData,
    DataReturned returned, platform::URLSession::BodyReader readBody) {
  platform::URLRequest request =
      requestWithType(type, url, param, isImage, imageName, imageExtension, imageInNSData);
  if (!isCached) {
    session_->dataTaskWithRequest(
        std::move(request),
        [returned = std::move(returned)](std::optional<platform::Bytes> data,
                                         std::optional<platform::HTTPURLResponse>,
                                         std::optional<platform::Error> error) {
          if (error) {
            returned(std::nullopt, std::move(error));
          } else {
            returned(data ? std::move(data) : platform::Bytes{}, std::nullopt);
          }
        },
        std::move(readBody));
    return;
  }

  auto cached = platform::URLCache::sharedURLCache()->cachedResponseForRequest(request);
  if (!checkAndRenewExpiry(networking::spacesEscaped(url), cacheExpireInSeconds)) cached.reset();
  if (cached) {
    // Answered inside the call, on the calling thread.
    returned(std::move(cached->data), std::nullopt);
    return;
  }
  platform::URLRequest key = request;
  key.HTTPBody.clear();
  session_->dataTaskWithRequest(
      std::move(request),
      [returned = std::move(returned), key = std::move(key)](
          std::optional<platform::Bytes> data, std::optional<platform::HTTPURLResponse> response,
          std::optional<platform::Error> error) {
        if (error) {
          returned(std::nullopt, std::move(error));
          return;
        }
        platform::CachedURLResponse fresh;
        if (response) fresh.response = std::move(*response);
        if (data) fresh.data = std::move(*data);
        fresh.storagePolicy = platform::URLCacheStoragePolicy::kAllowed;
        returned(fresh.data, std::nullopt);
        platform::URLCache::sharedURLCache()->storeCachedResponse(std::move(fresh), key);
      },
      std::move(readBody));
}

}  // namespace quorvia
