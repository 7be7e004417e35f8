// The libcurl transport: one thread drives a multi handle; other threads only
// queue requests and wake it.

#include <curl/curl.h>
#include <pthread.h>

#include <cmath>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/Log.h"
#include "platform/URLSession.h"

namespace quorvia::platform {
namespace {

// The largest answer body taken in. A longer one fails the request before it
// is held in memory: an answer is decoded whole, so without a bound one
// hostile or broken server could take the host's memory.
constexpr curl_off_t kMaxResponseBodyBytes = 16 * 1024 * 1024;
constexpr long kMaxRedirects = 16;
constexpr std::size_t kIdleHandlesKept = 64;
// curl_multi_poll takes an int of milliseconds; with nothing in flight the
// thread sleeps this long at a time, which is as good as forever.
constexpr int kIdleWaitMs = 24 * 60 * 60 * 1000;

Error transportError(std::int64_t code, const std::string& description, const std::string& url,
                     const std::string& detail) {
  Error error;
  error.domain = NSURLErrorDomain;
  error.code = code;
  error.userInfo[kNSLocalizedDescriptionKey] = description;
  if (!url.empty()) error.userInfo[NSURLErrorFailingURLStringErrorKey] = url;
  if (!detail.empty()) error.userInfo["NSDebugDescription"] = detail;
  return error;
}

Error errorForCurlCode(CURLcode code, const std::string& url, const char* detail) {
  const std::string debug = detail && *detail ? detail : curl_easy_strerror(code);
  switch (code) {
    case CURLE_URL_MALFORMAT:
      return transportError(NSURLErrorBadURL, "bad URL", url, debug);
    case CURLE_UNSUPPORTED_PROTOCOL:
      return transportError(NSURLErrorUnsupportedURL, "unsupported URL", url, debug);
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return transportError(NSURLErrorCannotFindHost,
                            "A server with the specified hostname could not be found.", url, debug);
    case CURLE_COULDNT_CONNECT:
      return transportError(NSURLErrorCannotConnectToHost, "Could not connect to the server.", url,
                            debug);
    case CURLE_OPERATION_TIMEDOUT:
      return transportError(NSURLErrorTimedOut, "The request timed out.", url, debug);
    case CURLE_TOO_MANY_REDIRECTS:
      return transportError(NSURLErrorHTTPTooManyRedirects, "too many HTTP redirects", url, debug);
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      return transportError(NSURLErrorNetworkConnectionLost, "The network connection was lost.",
                            url, debug);
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_BAD_CONTENT_ENCODING:
      return transportError(NSURLErrorBadServerResponse, "bad server response", url, debug);
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
      return transportError(NSURLErrorServerCertificateUntrusted,
                            "The certificate for this server is invalid.", url, debug);
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_USE_SSL_FAILED:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_SSL_CRL_BADFILE:
      return transportError(NSURLErrorSecureConnectionFailed,
                            "An SSL error has occurred and a secure connection to the server "
                            "cannot be made.",
                            url, debug);
    default:
      return transportError(NSURLErrorUnknown, "unknown error", url, debug);
  }
}

void initCurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

struct Transfer {
  URLRequest request;
  ServerTrustPolicy trust = ServerTrustPolicy::kEvaluate;
  URLTransport::Done done;
  CURL* easy = nullptr;
  curl_slist* headers = nullptr;
  Bytes received;
  HTTPURLResponse response;
  char errorText[CURL_ERROR_SIZE] = {};
  bool tooLarge = false;  // the body passed kMaxResponseBodyBytes

  ~Transfer() { curl_slist_free_all(headers); }
};

std::size_t onBody(char* data, std::size_t size, std::size_t count, void* user) {
  auto* transfer = static_cast<Transfer*>(user);
  const std::size_t n = size * count;
  if (n > static_cast<std::size_t>(kMaxResponseBodyBytes) - transfer->received.size()) {
    // Returning short aborts the transfer; finish() reports why.
    transfer->tooLarge = true;
    return 0;
  }
  if (transfer->received.empty()) {
    // One allocation of the announced size, bounded above: growing by
    // doubling holds the old and the new buffer at once.
    curl_off_t announced = -1;
    curl_easy_getinfo(transfer->easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
    if (announced > 0) {
      transfer->received.reserve(static_cast<std::size_t>(
          announced < kMaxResponseBodyBytes ? announced : kMaxResponseBodyBytes));
    }
  }
  transfer->received.insert(transfer->received.end(), data, data + n);
  return n;
}

std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* user) {
  auto* transfer = static_cast<Transfer*>(user);
  const std::size_t n = size * count;
  std::string_view line(data, n);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
  if (line.rfind("HTTP/", 0) == 0) {
    // A new status line starts the headers of a redirect's or a final answer.
    transfer->response.allHeaderFields.clear();
    return n;
  }
  const auto colon = line.find(':');
  if (colon == std::string_view::npos) return n;
  std::string_view value = line.substr(colon + 1);
  while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) value.remove_prefix(1);
  transfer->response.allHeaderFields.emplace_back(std::string(line.substr(0, colon)),
                                                  std::string(value));
  return n;
}

class CurlTransport final : public URLTransport {
 public:
  CurlTransport() {
    initCurlOnce();
    multi_ = curl_multi_init();
    curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, 64L);
  }

  ~CurlTransport() override {
    {
      std::lock_guard lock(mu_);
      stopping_ = true;
    }
    curl_multi_wakeup(multi_);
    if (thread_.joinable()) thread_.join();
    // Requests still queued or in flight when the process ends are abandoned.
    for (auto& [easy, transfer] : active_) {
      curl_multi_remove_handle(multi_, easy);
      curl_easy_cleanup(transfer->easy);
    }
    for (CURL* easy : idle_) curl_easy_cleanup(easy);
    curl_multi_cleanup(multi_);
  }

  void start(URLRequest request, ServerTrustPolicy trust, Done done) override {
    auto transfer = std::make_unique<Transfer>();
    transfer->request = std::move(request);
    transfer->trust = trust;
    transfer->done = std::move(done);
    {
      std::lock_guard lock(mu_);
      queue_.push_back(std::move(transfer));
      // Started by the first request: a host that sends none has no thread.
      if (!thread_.joinable()) {
        thread_ = std::thread([this] { run(); });
        // Named so that it can be told apart in top, perf and a debugger.
        pthread_setname_np(thread_.native_handle(), "quorvia-net");
      }
    }
    curl_multi_wakeup(multi_);
  }

 private:
  void run() {
    std::vector<std::unique_ptr<Transfer>> incoming;
    for (;;) {
      {
        std::lock_guard lock(mu_);
        if (stopping_) return;
        incoming.swap(queue_);
      }
      for (auto& transfer : incoming) begin(std::move(transfer));
      incoming.clear();
      int running = 0;
      curl_multi_perform(multi_, &running);
      int left = 0;
      while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
        if (message->msg != CURLMSG_DONE) continue;
        finish(message->easy_handle, message->data.result);
      }
      // Sleeps until a socket is ready, libcurl's next time-out falls due or
      // start() wakes it; with nothing in flight only start() does.
      long curlTimeoutMs = -1;
      curl_multi_timeout(multi_, &curlTimeoutMs);
      const int timeoutMs = active_.empty() || curlTimeoutMs < 0 || curlTimeoutMs > kIdleWaitMs
                                ? kIdleWaitMs
                                : static_cast<int>(curlTimeoutMs);
      curl_multi_poll(multi_, nullptr, 0, timeoutMs, nullptr);
    }
  }

  CURL* takeHandle() {
    if (idle_.empty()) return curl_easy_init();
    CURL* easy = idle_.back();
    idle_.pop_back();
    return easy;
  }

  void begin(std::unique_ptr<Transfer> transfer) {
    if (!transfer->request.url) {
      complete(std::move(transfer),
               TransportResult{std::nullopt, std::nullopt,
                               transportError(NSURLErrorBadURL, "bad URL", "", "")});
      return;
    }
    CURL* easy = takeHandle();
    if (!easy) {
      complete(std::move(transfer),
               TransportResult{std::nullopt, std::nullopt,
                               transportError(NSURLErrorUnknown, "unknown error", "",
                                              "curl_easy_init failed")});
      return;
    }
    transfer->easy = easy;
    const URLRequest& request = transfer->request;
    curl_easy_setopt(easy, CURLOPT_URL, request.url->absoluteString.c_str());
    curl_easy_setopt(easy, CURLOPT_PRIVATE, transfer.get());
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer->errorText);
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(easy, CURLOPT_MAXREDIRS, kMaxRedirects);
    curl_easy_setopt(easy, CURLOPT_TCP_NODELAY, 1L);
    const double timeout =
        request.timeoutInterval > 0 ? request.timeoutInterval : kDefaultTimeoutInterval;
    curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, static_cast<long>(std::ceil(timeout * 1000.0)));
    // An announced length past the bound fails before any of the body is read.
    curl_easy_setopt(easy, CURLOPT_MAXFILESIZE_LARGE, kMaxResponseBodyBytes);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, transfer.get());
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, onHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, transfer.get());
    if (transfer->trust == ServerTrustPolicy::kAcceptAny) {
      // The session's challenge answer: use whatever trust the server offers.
      curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 0L);
      curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 0L);
    }

    static const char kEmptyBody[] = "";
    const char* body = request.HTTPBody.empty()
                           ? kEmptyBody
                           : reinterpret_cast<const char*>(request.HTTPBody.data());
    const auto bodySize = static_cast<curl_off_t>(request.HTTPBody.size());
    if (request.HTTPMethod == "GET" && request.HTTPBody.empty()) {
      curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
    } else if (request.HTTPMethod == "HEAD") {
      curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    } else {
      curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, bodySize);
      curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body);
      if (request.HTTPMethod != "POST") {
        curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.HTTPMethod.c_str());
      }
    }

    for (const auto& [name, value] : request.allHTTPHeaderFields) {
      // "Name;" is libcurl's way of sending a header with an empty value.
      const std::string line = value.empty() ? name + ";" : name + ": " + value;
      transfer->headers = curl_slist_append(transfer->headers, line.c_str());
    }
    const bool hasContentType = request.valueForHTTPHeaderField("Content-Type").has_value();
    // Only the request's own headers describe its body: no default form type,
    // no 100-continue round trip.
    if (!hasContentType) transfer->headers = curl_slist_append(transfer->headers, "Content-Type:");
    transfer->headers = curl_slist_append(transfer->headers, "Expect:");
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, transfer->headers);

    if (curl_multi_add_handle(multi_, easy) != CURLM_OK) {
      curl_easy_cleanup(easy);
      transfer->easy = nullptr;
      complete(std::move(transfer),
               TransportResult{std::nullopt, std::nullopt,
                               transportError(NSURLErrorUnknown, "unknown error", "",
                                              "curl_multi_add_handle failed")});
      return;
    }
    active_.emplace(easy, std::move(transfer));
  }

  void finish(CURL* easy, CURLcode code) {
    curl_multi_remove_handle(multi_, easy);
    const auto found = active_.find(easy);
    if (found == active_.end()) return;
    std::unique_ptr<Transfer> transfer = std::move(found->second);
    active_.erase(found);
    TransportResult result;
    if (code == CURLE_OK) {
      long status = 0;
      curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
      char* effective = nullptr;
      curl_easy_getinfo(easy, CURLINFO_EFFECTIVE_URL, &effective);
      transfer->response.statusCode = status;
      transfer->response.url = effective ? effective : transfer->request.url->absoluteString;
      result.response = std::move(transfer->response);
      result.data = std::move(transfer->received);
    } else if (code == CURLE_FILESIZE_EXCEEDED || transfer->tooLarge) {
      result.error = transportError(
          NSURLErrorDataLengthExceedsMaximum, "data length exceeds maximum",
          transfer->request.url->absoluteString,
          "the answer is larger than " + std::to_string(kMaxResponseBodyBytes) + " bytes");
    } else {
      result.error =
          errorForCurlCode(code, transfer->request.url->absoluteString, transfer->errorText);
    }
    // The answer goes out first; the handle, which still points into the
    // transfer, is tidied for its next use after.
    transfer->easy = nullptr;
    if (Done done = std::move(transfer->done)) done(std::move(result));
    curl_easy_reset(easy);
    if (idle_.size() < kIdleHandlesKept) {
      idle_.push_back(easy);
    } else {
      curl_easy_cleanup(easy);
    }
  }

  static void complete(std::unique_ptr<Transfer> transfer, TransportResult result) {
    Done done = std::move(transfer->done);
    transfer.reset();
    if (done) done(std::move(result));
  }

  CURLM* multi_ = nullptr;
  std::mutex mu_;
  std::vector<std::unique_ptr<Transfer>> queue_;  // guarded by mu_
  bool stopping_ = false;                         // guarded by mu_
  // Used by the transport thread only.
  // Keyed by handle: finding a finished transfer by a linear search made a
  // burst of many requests (a host retrying against a dead server) quadratic.
  std::unordered_map<CURL*, std::unique_ptr<Transfer>> active_;
  std::vector<CURL*> idle_;
  std::thread thread_;  // guarded by mu_ until started
};

}  // namespace

std::shared_ptr<URLTransport> makeCurlTransport() { return std::make_shared<CurlTransport>(); }

}  // namespace quorvia::platform
