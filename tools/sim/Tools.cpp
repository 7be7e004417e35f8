// Direct use of the SDK's HTTP client and keychain, for exercising them from a script.
#include <chrono>
#include <memory>

#include "CommandFields.h"
#include "Simulator.h"
#include "keychain/LKKeychain.h"
#include "networking/SimpleNetworking.h"
#include "quorvia/platform/RunLoop.h"

namespace quorvia::sim {
namespace {

using platform::Value;

// How long a request command waits for its completion before reporting an error; the
// completion is still reported if it comes later.
constexpr auto kResponseTimeout = std::chrono::seconds(30);
constexpr double kDefaultCacheSeconds = 60;

Value errorOf(const std::optional<platform::Error>& error) {
  if (!error) return nullptr;
  return {{"domain", error->domain}, {"code", error->code}};
}

// Collects one completion and writes it as a "response" event.
struct PendingResponse {
  std::shared_ptr<EventWriter> events;
  bool inCall = true;
  bool done = false;

  void complete(Value result, const std::optional<platform::Error>& error) {
    done = true;
    events->write(
        "response",
        {{"result", std::move(result)}, {"error", errorOf(error)}, {"synchronous", inCall}});
  }
};

}  // namespace

void Simulator::request(const Json& command) {
  const std::string op = requiredString(command, "op");
  const std::string url = requiredString(command, "url");
  std::optional<Value> param;
  if (const Value* given = field(command, "param")) param = *given;
  const double seconds = optionalNumber(command, "seconds", kDefaultCacheSeconds);

  auto pending = std::make_shared<PendingResponse>();
  pending->events = events_;
  SimpleNetworking::Returned json = [pending](std::optional<Value> result,
                                              std::optional<platform::Error> error) {
    pending->complete(result ? std::move(*result) : Value(nullptr), error);
  };
  SimpleNetworking::ImageReturned image = [pending](std::shared_ptr<platform::Image> result,
                                                    std::optional<platform::Error> error) {
    Value size = nullptr;
    if (result) size = {{"width", result->width}, {"height", result->height}};
    pending->complete(std::move(size), error);
  };

  if (op == "getJsonCachedFromURL") {
    SimpleNetworking::getJsonCachedFromURL(url, param, seconds, json);
  } else if (op == "getJsonCachelessFromURL") {
    SimpleNetworking::getJsonCachelessFromURL(url, param, json);
  } else if (op == "getImageCachedFromURL") {
    SimpleNetworking::getImageCachedFromURL(url, param, seconds, image);
  } else if (op == "getImageCachelessFromURL") {
    SimpleNetworking::getImageCachelessFromURL(url, param, image);
  } else if (op == "postToURL") {
    SimpleNetworking::postToURL(url, param, json);
  } else if (op == "postImageToURL") {
    const std::optional<Value> upload = optionalDictionary(command, "image");
    if (!upload) throw CommandError("\"image\" is required for postImageToURL");
    SimpleNetworking::postImageToURL(url, param,
                                     optionalHex(*upload, "hex").value_or(platform::Bytes{}),
                                     optionalString(*upload, "name").value_or(""),
                                     optionalString(*upload, "extension").value_or(""), json);
  } else if (op == "putToURL") {
    SimpleNetworking::putToURL(url, param, json);
  } else if (op == "deleteFromURL") {
    SimpleNetworking::deleteFromURL(url, param, json);
  } else {
    throw CommandError("unknown request op \"" + op + "\"");
  }
  pending->inCall = false;
  if (!platform::mainRunLoop().runUntil([&pending] { return pending->done; }, kResponseTimeout)) {
    events_->error("no response to " + op + " " + url + " yet; it is reported when it comes");
  }
}

void Simulator::keychain(const Json& command) {
  const std::string op = requiredString(command, "op");
  const std::optional<std::string> service = optionalString(command, "service");
  const std::optional<std::string> account = optionalString(command, "account");
  platform::Error error;
  error.code = 0;
  Value result;
  if (op == "setPassword") {
    result = LKKeychain::setPassword(optionalString(command, "password"), service, account, &error);
  } else if (op == "password") {
    const auto password = LKKeychain::passwordForService(service, account, &error);
    result = password ? Value(*password) : Value(nullptr);
  } else if (op == "deletePassword") {
    result = LKKeychain::deletePasswordForService(service, account, &error);
  } else if (op == "accounts") {
    const auto accounts = LKKeychain::accountsForService(service, &error);
    result = accounts ? *accounts : Value(nullptr);
  } else {
    throw CommandError("unknown keychain op \"" + op + "\"");
  }
  Value reported = nullptr;
  if (!error.domain.empty() || error.code != 0) {
    reported = {{"code", error.code}, {"message", error.localizedDescription()}};
  }
  events_->write("keychain", {{"result", std::move(result)}, {"error", std::move(reported)}});
}

}  // namespace quorvia::sim
