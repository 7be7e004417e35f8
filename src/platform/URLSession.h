#pragma once
/// \file
/// URL loading (NSURLSession, NSMutableURLRequest, NSHTTPURLResponse): requests
/// are handed to a transport that runs them off the main thread, and every
/// answer comes back on the main queue.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "quorvia/export.h"
#include "quorvia/platform/Error.h"
#include "platform/URL.h"
#include "quorvia/platform/Value.h"

namespace quorvia::platform {

/// Domain of transport errors (NSURLErrorDomain) and its codes.
inline constexpr const char* NSURLErrorDomain = "NSURLErrorDomain";
/// Key of the failing URL's text in a transport error's user info.
inline constexpr const char* NSURLErrorFailingURLStringErrorKey = "NSErrorFailingURLStringKey";
enum NSURLErrorCode : std::int64_t {
  NSURLErrorUnknown = -1,
  NSURLErrorBadURL = -1000,
  NSURLErrorTimedOut = -1001,
  NSURLErrorUnsupportedURL = -1002,
  NSURLErrorCannotFindHost = -1003,
  NSURLErrorCannotConnectToHost = -1004,
  NSURLErrorNetworkConnectionLost = -1005,
  NSURLErrorNotConnectedToInternet = -1009,
  NSURLErrorHTTPTooManyRedirects = -1007,
  NSURLErrorBadServerResponse = -1011,
  NSURLErrorDataLengthExceedsMaximum = -1103,
  NSURLErrorSecureConnectionFailed = -1200,
  NSURLErrorServerCertificateUntrusted = -1202,
};

/// The default request time-out, in seconds.
inline constexpr double kDefaultTimeoutInterval = 60.0;

/// One HTTP header: name and value, in the order they were set.
using HTTPHeader = std::pair<std::string, std::string>;

/// A mutable URL request (NSMutableURLRequest). A value type; not shared.
struct QUORVIA_EXPORT URLRequest {
  /// nullopt when the URL text did not make a URL (the transport then fails
  /// the request with NSURLErrorBadURL).
  std::optional<URL> url;
  std::string HTTPMethod = "GET";
  std::vector<HTTPHeader> allHTTPHeaderFields;
  Bytes HTTPBody;
  /// Longest time the whole transfer may take, in seconds.
  double timeoutInterval = kDefaultTimeoutInterval;

  /// A GET request for `url` with the default time-out (requestWithURL:).
  static URLRequest requestWithURL(std::optional<URL> url);
  /// Sets a header, replacing one of the same name (compared without case).
  void setValueForHTTPHeaderField(std::string value, std::string_view field);
  /// The header's value, or nullopt when it is not set.
  std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const;
};

/// The answer's metadata (NSHTTPURLResponse).
struct QUORVIA_EXPORT HTTPURLResponse {
  std::string url;  ///< the URL that answered, after redirects
  long statusCode = 0;
  std::vector<HTTPHeader> allHeaderFields;
};

/// What a transport reports for one request: an error, or a response and
/// its body.
struct QUORVIA_EXPORT TransportResult {
  std::optional<Bytes> data;
  std::optional<HTTPURLResponse> response;
  std::optional<Error> error;
};

/// How a session answers a server-trust challenge (the delegate's
/// URLSession:didReceiveChallenge:completionHandler:), fixed when the
/// session is made so that the transport never waits on the main thread
/// during a handshake.
enum class ServerTrustPolicy {
  kEvaluate,   ///< default handling: the certificate chain and host are checked
  kAcceptAny,  ///< use a credential for whatever trust the server offers
};

/// The seam under URLSession: sends requests and reports each one exactly
/// once. Implementations are thread-safe; `done` may run on any thread.
class QUORVIA_EXPORT URLTransport {
 public:
  using Done = std::function<void(TransportResult result)>;

  URLTransport() = default;
  URLTransport(const URLTransport&) = delete;
  URLTransport& operator=(const URLTransport&) = delete;
  virtual ~URLTransport();

  /// Starts `request`; calls `done` exactly once, never inside this call.
  virtual void start(URLRequest request, ServerTrustPolicy trust, Done done) = 0;
};

/// The libcurl transport: one transport thread driving a multi handle,
/// connections kept alive and reused. Requests may be started from any thread.
QUORVIA_EXPORT std::shared_ptr<URLTransport> makeCurlTransport();

/// The environment's transport.
QUORVIA_EXPORT std::shared_ptr<URLTransport> sharedURLTransport();

/// A URL session (NSURLSession with the main queue as delegate queue).
/// Thread-safe: tasks may be started from any thread; every completion
/// handler runs on the main queue.
class QUORVIA_EXPORT URLSession final {
 public:
  using CompletionHandler = std::function<void(std::optional<Bytes> data,
                                               std::optional<HTTPURLResponse> response,
                                               std::optional<Error> error)>;

  /// A session on the process's transport answering trust challenges with
  /// `trust`.
  explicit URLSession(ServerTrustPolicy trust = ServerTrustPolicy::kEvaluate);
  /// A session on a given transport (tests, benchmarks).
  URLSession(std::shared_ptr<URLTransport> transport, ServerTrustPolicy trust);

  /// Reads an answer's body where it arrived, off the main thread, before
  /// the handler runs (e.g. decodes it, so the main queue gets the value).
  using BodyReader = std::function<void(const Bytes& body)>;

  /// Creates and resumes one data task: sends `request` and calls `handler`
  /// once on the main queue with (data, response, nil) or (nil, nil, error).
  /// `readBody`, when given, sees the body of an answer first, on the
  /// transport's thread.
  void dataTaskWithRequest(URLRequest request, CompletionHandler handler,
                           BodyReader readBody = nullptr);

 private:
  std::shared_ptr<URLTransport> transport_;
  ServerTrustPolicy trust_;
};

}  // namespace quorvia::platform
