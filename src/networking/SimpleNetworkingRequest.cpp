// Building the request: verb, header fields, form and multipart bodies.

#include <string>

#include "networking/URLText.h"
#include "networking/SimpleNetworking.h"
#include "platform/Log.h"

namespace quorvia {
namespace {

constexpr const char* kFormContentType = "application/x-www-form-urlencoded";
constexpr const char* kBoundary = "uniqueNetworkingBoundary";

void append(platform::Bytes& body, std::string_view text) {
  body.insert(body.end(), text.begin(), text.end());
}

}  // namespace

std::string SimpleNetworking::getRESTfulTypeStringForType(int type) {
  switch (static_cast<RequestType>(type)) {
    case RequestType::kPost:
      return "POST";
    case RequestType::kPut:
      return "PUT";
    case RequestType::kDelete:
      return "DELETE";
    case RequestType::kGet:
    default:
      return "GET";
  }
}

std::string SimpleNetworking::getParamInString(const platform::Value& param) {
  if (!param.is_object()) {
    platform::debugLog("SimpleNetworking: param is not a dictionary and is not sent: " +
                       platform::describe(param));
    return {};
  }
  std::string joined;
  bool first = true;
  for (const auto& [key, value] : param.items()) {
    if (value.is_null()) continue;
    if (!first) joined += '&';
    first = false;
    joined += key;
    joined += '=';
    joined += platform::describe(value);
  }
  return joined;
}

platform::URLRequest SimpleNetworking::requestWithType(
    int type, const std::string& url, const std::optional<platform::Value>& param, bool isImage,
    const std::string& imageName, const std::string& imageExtension,
    const std::optional<platform::Bytes>& imageInNSData) const {
  auto request =
      platform::URLRequest::requestWithURL(platform::URLWithString(networking::spacesEscaped(url)));
  request.HTTPMethod = getRESTfulTypeStringForType(type);

  const platform::Value headers = headerFields();
  for (const auto& [field, value] : headers.items()) {
    if (!value.is_string()) {
      platform::debugLog("SimpleNetworking: header field " + field +
                         " has no text value and is not sent: " + platform::describe(value));
      continue;
    }
    request.setValueForHTTPHeaderField(value.get<std::string>(), field);
  }
  const auto code = static_cast<RequestType>(type);
  if (code == RequestType::kPut || code == RequestType::kDelete) {
    request.setValueForHTTPHeaderField(kFormContentType, "Content-Type");
  }

  platform::Bytes body;
  if (isImage && code == RequestType::kPost) {
    request.setValueForHTTPHeaderField(std::string("multipart/form-data; boundary=") + kBoundary,
                                       "Content-Type");
    // The {"":""} prefix and the doubled opening boundary are deliberate: the
    // service's upload endpoint is written against exactly these bytes.
    append(body, platform::serializeJson(platform::Value::object({{"", ""}})).value_or(""));
    append(body, std::string("--") + kBoundary + "\r\n");
    append(body, std::string("--") + kBoundary + "\r\n");
    append(body, "Content-Disposition: form-data; name=\"" + imageName + "\"; filename=\"image." +
                     imageExtension + "\"\r\n");
    append(body, "Content-Type: image/" + imageExtension + "\r\n\r\n");
    if (imageInNSData) body.insert(body.end(), imageInNSData->begin(), imageInNSData->end());
    append(body, "\r\n");
    append(body, std::string("--") + kBoundary + "--\r\n");
  }
  // GET never carries params; any other code, known or not, sends them as body.
  if (code != RequestType::kGet && param) append(body, getParamInString(*param));
  request.HTTPBody = std::move(body);
  return request;
}

std::int64_t SimpleNetworking::capacityInBytes(std::int32_t megabytes) {
  const std::uint32_t wrapped = static_cast<std::uint32_t>(megabytes) * (1024u * 1024u);
  return static_cast<std::int64_t>(static_cast<std::int32_t>(wrapped));
}

}  // namespace quorvia
