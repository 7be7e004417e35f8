#include "ServiceApi.h"

#include <charconv>
#include <ctime>
#include <optional>
#include <string>

#include "AdminJson.h"
#include "BoundedBody.h"
#include "JsonResponse.h"
#include "SdkForm.h"

namespace quorvia::devserver {

namespace {

using nlohmann::json;

// Tokens carry these texts in their JSON claims, which must be UTF-8 to match them again later.
bool isUtf8(const std::string& text) {
  try {
    (void)json(text).dump();
    return true;
  } catch (const json::exception&) {
    return false;
  }
}

std::optional<int64_t> parseId(std::string_view text) {
  int64_t id = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), id);
  if (ec != std::errc() || end != text.data() + text.size() || id <= 0) return std::nullopt;
  return id;
}

// Tells the dashboard that a device of `appToken` changed: registered, called, or sent its info.
void publishDevice(EventHub& events, const std::string& appToken) {
  events.publish(json{{"type", "device"}, {"app_token", appToken}}.dump());
}

// The registered device behind the request's "Authorization: JWT <token>" header, or nullopt
// after answering 401. A token must verify and name a device that still exists with the same
// app and push token. The call is the device's latest, and the dashboard hears of it.
std::optional<DeviceRecord> authorisedDevice(const httplib::Request& request,
                                             httplib::Response& response, PollStore& store,
                                             const AccessToken& tokens, EventHub& events) {
  constexpr std::string_view kScheme = "JWT ";
  std::string header = request.get_header_value("Authorization");
  if (header.empty()) {
    sendError(response, 401, "missing Authorization header");
    return std::nullopt;
  }
  if (!std::string_view(header).starts_with(kScheme)) {
    sendError(response, 401, "Authorization must be \"JWT <access token>\"");
    return std::nullopt;
  }
  std::optional<json> claims = tokens.verify(std::string_view(header).substr(kScheme.size()));
  std::optional<int64_t> deviceId;
  if (claims && (*claims)["sub"].is_string()) {
    deviceId = parseId((*claims)["sub"].get<std::string>());
  }
  std::optional<DeviceRecord> device;
  if (deviceId) device = store.device(*deviceId);
  if (!device || (*claims)["app_token"] != device->appToken ||
      (*claims)["push_token"] != device->pushToken) {
    sendError(response, 401, "invalid access token");
    return std::nullopt;
  }
  store.touchDevice(device->id);
  publishDevice(events, device->appToken);
  return device;
}

void registerDevice(const httplib::Request& request, httplib::Response& response, PollStore& store,
                    const AccessToken& tokens, EventHub& events) {
  auto form = parseSdkForm(request.body, {"push_token", "app_token", "platform"});
  auto pushToken = form.find("push_token");
  auto appToken = form.find("app_token");
  if (pushToken == form.end() || pushToken->second.empty()) {
    sendError(response, 400, "missing push_token");
    return;
  }
  if (appToken == form.end() || appToken->second.empty()) {
    sendError(response, 400, "missing app_token");
    return;
  }
  if (!isUtf8(pushToken->second) || !isUtf8(appToken->second)) {
    sendError(response, 400, "push_token and app_token must be UTF-8 text");
    return;
  }
  std::string platform = form.contains("platform") ? form["platform"] : "";
  std::optional<DeviceRecord> device =
      store.registerDevice(appToken->second, pushToken->second, platform);
  if (!device) {
    sendError(response, 500, "could not record the device");
    return;
  }
  json claims{{"sub", std::to_string(device->id)},
              {"app_token", device->appToken},
              {"push_token", device->pushToken},
              {"iat", static_cast<int64_t>(std::time(nullptr))}};
  publishDevice(events, device->appToken);
  sendJson(response, 200, json{{"access_token", tokens.issue(claims)}});
}

void setUserInfo(const httplib::Request& request, httplib::Response& response, PollStore& store,
                 const AccessToken& tokens, EventHub& events) {
  std::optional<DeviceRecord> device = authorisedDevice(request, response, store, tokens, events);
  if (!device) return;
  auto form = parseSdkForm(request.body, {"user_info"});
  if (!form.contains("user_info")) {
    sendError(response, 400, "missing user_info");
    return;
  }
  if (!store.setUserInfo(device->id, form["user_info"])) {
    sendError(response, 500, "could not store the user info");
    return;
  }
  publishDevice(events, device->appToken);
  sendJson(response, 200, json{{"status", "ok"}});
}

void sendReply(const httplib::Request& request, httplib::Response& response, PollStore& store,
               const AccessToken& tokens, EventHub& events) {
  std::optional<DeviceRecord> device = authorisedDevice(request, response, store, tokens, events);
  if (!device) return;
  // A poll id the SDK could not read arrives as "(null)" and lands here as unknown.
  std::optional<int64_t> pollId = parseId(request.matches[1].str());
  std::optional<PollRecord> poll;
  if (pollId) poll = store.poll(*pollId);
  if (!poll || poll->appToken != device->appToken) {
    sendError(response, 404, "unknown poll \"" + request.matches[1].str() + "\"");
    return;
  }
  auto form = parseSdkForm(request.body, {"reply_text"});
  if (!form.contains("reply_text") || form["reply_text"].empty()) {
    sendError(response, 400, "missing reply_text");
    return;
  }
  std::optional<ReplyRecord> reply = store.addReply(poll->id, device->id, form["reply_text"]);
  if (!reply) {
    sendError(response, 500, "could not record the reply");
    return;
  }
  events.publish(json{{"type", "reply"},
                      {"poll_id", reply->pollId},
                      {"app_token", device->appToken},
                      {"reply", replyJson(*reply)}}
                     .dump(-1, ' ', false, json::error_handler_t::replace));
  sendJson(response, 201,
           json{{"id", reply->id},
                {"poll_id", reply->pollId},
                {"reply_text", reply->replyText},
                {"created_at", reply->createdAt}});
}

void fetchPolls(const httplib::Request& request, httplib::Response& response, PollStore& store,
                const AccessToken& tokens, EventHub& events) {
  std::optional<DeviceRecord> device = authorisedDevice(request, response, store, tokens, events);
  if (!device) return;
  std::string appToken = request.matches[1].str();
  if (appToken != device->appToken) {
    sendError(response, 403, "the access token belongs to another app");
    return;
  }
  json results = json::array();
  for (const PollRecord& poll : store.pendingPolls(appToken, device->id)) {
    results.push_back(pollDictionary(poll));
  }
  sendJson(response, 200, json{{"results", std::move(results)}});
}

}  // namespace

void installServiceApi(httplib::Server& server, PollStore& store, const AccessToken& tokens,
                       EventHub& events, size_t maxBodyBytes) {
  auto bind = [&store, &tokens, &events](auto handler) {
    return [&store, &tokens, &events, handler](const httplib::Request& request,
                                               httplib::Response& response) {
      handler(request, response, store, tokens, events);
    };
  };
  server.Post(R"(/endpoints/?)", withBoundedBody(maxBodyBytes, bind(registerDevice)));
  server.Post(R"(/me/?)", withBoundedBody(maxBodyBytes, bind(setUserInfo)));
  server.Post(R"(/polls/([^/]+)/replies/?)", withBoundedBody(maxBodyBytes, bind(sendReply)));
  server.Get(R"(/apps/([^/]+)/polls/?)", bind(fetchPolls));
}

}  // namespace quorvia::devserver
