#include "AdminApi.h"

#include <charconv>
#include <optional>
#include <string>
#include <vector>

#include "BoundedBody.h"
#include "JsonResponse.h"

namespace quorvia::devserver {

namespace {

using nlohmann::json;

json optionsJson(const std::vector<PollOption>& options) {
  json list = json::array();
  for (const PollOption& option : options) {
    json entry{{"text", option.text}};
    if (option.link) entry["link"] = *option.link;
    list.push_back(std::move(entry));
  }
  return list;
}

json pollJson(const PollRecord& poll) {
  return json{{"id", poll.id},
              {"app_token", poll.appToken},
              {"question", poll.question},
              {"options", optionsJson(poll.options)},
              {"created_at", poll.createdAt},
              {"reply_count", poll.replyCount}};
}

json deviceJson(const DeviceRecord& device) {
  return json{{"id", device.id},
              {"app_token", device.appToken},
              {"push_token", device.pushToken},
              {"platform", device.platform},
              {"user_info", device.userInfo ? json(*device.userInfo) : json(nullptr)},
              {"created_at", device.createdAt},
              {"updated_at", device.updatedAt}};
}

json replyJson(const ReplyRecord& reply) {
  return json{{"id", reply.id},
              {"poll_id", reply.pollId},
              {"reply_text", reply.replyText},
              {"device", deviceJson(reply.device)},
              {"created_at", reply.createdAt}};
}

bool isNonEmptyString(const json& value) {
  return value.is_string() && !value.get_ref<const std::string&>().empty();
}

// Checks a poll definition; on success fills the out-parameters and returns an empty string,
// otherwise returns what is wrong with it.
std::string readPollDefinition(const json& body, std::string& appToken, std::string& question,
                               std::vector<PollOption>& options) {
  if (!body.is_object()) return "the body must be a JSON object";
  for (const auto& [key, value] : body.items()) {
    if (key != "app_token" && key != "question" && key != "options") {
      return "unknown key \"" + key + "\"";
    }
  }
  if (!body.contains("app_token") || !isNonEmptyString(body["app_token"])) {
    return "\"app_token\" must be a non-empty string";
  }
  if (!body.contains("question") || !isNonEmptyString(body["question"])) {
    return "\"question\" must be a non-empty string";
  }
  if (!body.contains("options") || !body["options"].is_array() || body["options"].empty()) {
    return "\"options\" must be a non-empty array";
  }
  for (size_t i = 0; i < body["options"].size(); ++i) {
    const json& option = body["options"][i];
    std::string where = "options[" + std::to_string(i) + "]";
    if (!option.is_object()) return where + " must be an object";
    for (const auto& [key, value] : option.items()) {
      if (key != "text" && key != "link") return where + " has the unknown key \"" + key + "\"";
    }
    if (!option.contains("text") || !isNonEmptyString(option["text"])) {
      return where + ".text must be a non-empty string";
    }
    PollOption parsed{option["text"].get<std::string>(), std::nullopt};
    if (option.contains("link") && !option["link"].is_null()) {
      if (!isNonEmptyString(option["link"])) {
        return where + ".link must be a non-empty string or null";
      }
      parsed.link = option["link"].get<std::string>();
    }
    options.push_back(std::move(parsed));
  }
  appToken = body["app_token"].get<std::string>();
  question = body["question"].get<std::string>();
  return {};
}

std::optional<std::string> queryText(const httplib::Request& request, const char* name) {
  if (!request.has_param(name)) return std::nullopt;
  return request.get_param_value(name);
}

// Reads a positive integer id; nullopt when it is not one.
std::optional<int64_t> parseId(const std::string& text) {
  int64_t id = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), id);
  if (ec != std::errc() || end != text.data() + text.size() || id <= 0) return std::nullopt;
  return id;
}

void createPoll(const httplib::Request& request, httplib::Response& response, PollStore& store) {
  json body = json::parse(request.body, nullptr, false);
  if (body.is_discarded()) {
    sendError(response, 400, "the body is not valid JSON");
    return;
  }
  std::string appToken;
  std::string question;
  std::vector<PollOption> options;
  if (std::string problem = readPollDefinition(body, appToken, question, options);
      !problem.empty()) {
    sendError(response, 400, problem);
    return;
  }
  std::optional<PollRecord> poll = store.createPoll(appToken, question, options);
  if (!poll) {
    sendError(response, 500, "could not store the poll");
    return;
  }
  sendJson(response, 201, pollJson(*poll));
}

void listPolls(const httplib::Request& request, httplib::Response& response, PollStore& store) {
  json polls = json::array();
  for (const PollRecord& poll : store.polls(queryText(request, "app_token"))) {
    polls.push_back(pollJson(poll));
  }
  sendJson(response, 200, json{{"polls", std::move(polls)}});
}

void listReplies(const httplib::Request& request, httplib::Response& response, PollStore& store) {
  std::optional<int64_t> pollId;
  std::optional<std::string> pollText = request.matches.size() > 1
                                            ? std::optional(request.matches[1].str())
                                            : queryText(request, "poll_id");
  if (pollText) {
    pollId = parseId(*pollText);
    if (!pollId) {
      sendError(response, 400, "poll_id must be a positive integer");
      return;
    }
    if (!store.poll(*pollId)) {
      sendError(response, 404, "unknown poll " + *pollText);
      return;
    }
  }
  json replies = json::array();
  for (const ReplyRecord& reply : store.replies(pollId, queryText(request, "app_token"))) {
    replies.push_back(replyJson(reply));
  }
  sendJson(response, 200, json{{"replies", std::move(replies)}});
}

void listDevices(const httplib::Request& request, httplib::Response& response, PollStore& store) {
  json devices = json::array();
  for (const DeviceRecord& device : store.devices(queryText(request, "app_token"))) {
    devices.push_back(deviceJson(device));
  }
  sendJson(response, 200, json{{"devices", std::move(devices)}});
}

}  // namespace

void installAdminApi(httplib::Server& server, PollStore& store, size_t maxBodyBytes) {
  auto bind = [&store](auto handler) {
    return [&store, handler](const httplib::Request& request, httplib::Response& response) {
      handler(request, response, store);
    };
  };
  server.Post(R"(/admin/polls/?)", withBoundedBody(maxBodyBytes, bind(createPoll)));
  server.Get(R"(/admin/polls/?)", bind(listPolls));
  server.Get(R"(/admin/polls/([^/]+)/replies/?)", bind(listReplies));
  server.Get(R"(/admin/replies/?)", bind(listReplies));
  server.Get(R"(/admin/devices/?)", bind(listDevices));
}

}  // namespace quorvia::devserver
