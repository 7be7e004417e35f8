#include "AdminApi.h"

#include <atomic>
#include <charconv>
#include <optional>
#include <string>
#include <vector>

#include "AdminJson.h"
#include "BoundedBody.h"
#include "Categories.h"
#include "GuardedServer.h"
#include "JsonResponse.h"
#include "PushFanout.h"

namespace quorvia::devserver {

namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

// An event stream is answered in rounds: a round ends with events, when the browser goes away,
// or at the latest after the heartbeat, which keeps proxies from timing the stream out. A stream
// ends after its maximum age (the browser reconnects by itself), so none holds a worker for good.
constexpr std::chrono::seconds kHeartbeat{15};
constexpr std::chrono::minutes kMaxStreamAge{10};
constexpr int kMaxStreams = 32;

bool isNonEmptyString(const json& value) {
  return value.is_string() && !value.get_ref<const std::string&>().empty();
}

struct PollDefinition {
  std::string appToken;
  std::string question;
  std::vector<PollOption> options;
  std::string category = "Yes.No";
};

// Checks a poll definition; on success fills `poll` and returns an empty string, otherwise
// returns what is wrong with it.
std::string readPollDefinition(const json& body, PollDefinition& poll) {
  if (!body.is_object()) return "the body must be a JSON object";
  for (const auto& [key, value] : body.items()) {
    if (key != "app_token" && key != "question" && key != "options" && key != "category") {
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
  if (body.contains("category")) {
    if (!body["category"].is_string() || !isCategory(body["category"].get<std::string>())) {
      return "\"category\" must be one of Yes.No, No.Yes, A.B, emoji1.emoji2, emojiA.emojiB, "
             "thumbsup.thumbsdown";
    }
    poll.category = body["category"].get<std::string>();
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
    poll.options.push_back(std::move(parsed));
  }
  poll.appToken = body["app_token"].get<std::string>();
  poll.question = body["question"].get<std::string>();
  return {};
}

std::optional<std::string> queryText(const httplib::Request& request, const char* name) {
  if (!request.has_param(name)) return std::nullopt;
  return request.get_param_value(name);
}

std::optional<std::string> appQuery(const httplib::Request& request) {
  if (auto app = queryText(request, "app")) return app;
  return queryText(request, "app_token");
}

// Reads a positive integer id; nullopt when it is not one.
std::optional<int64_t> parseId(const std::string& text) {
  int64_t id = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), id);
  if (ec != std::errc() || end != text.data() + text.size() || id <= 0) return std::nullopt;
  return id;
}

// The poll named by the route's first group, or nullopt after answering 400/404.
std::optional<PollRecord> routedPoll(const httplib::Request& request, httplib::Response& response,
                                     PollStore& store) {
  std::string text = request.matches[1].str();
  std::optional<int64_t> id = parseId(text);
  if (!id) {
    sendError(response, 400, "poll id must be a positive integer");
    return std::nullopt;
  }
  std::optional<PollRecord> poll = store.poll(*id);
  if (!poll) sendError(response, 404, "unknown poll " + text);
  return poll;
}

void publishPollEvent(EventHub& events, const char* type, const PollRecord& poll) {
  events.publish(json{{"type", type}, {"poll_id", poll.id}, {"app_token", poll.appToken}}.dump());
}

void createPoll(const httplib::Request& request, httplib::Response& response,
                AdminContext& context) {
  json body = json::parse(request.body, nullptr, false);
  if (body.is_discarded()) {
    sendError(response, 400, "the body is not valid JSON");
    return;
  }
  PollDefinition definition;
  if (std::string problem = readPollDefinition(body, definition); !problem.empty()) {
    sendError(response, 400, problem);
    return;
  }
  std::optional<PollRecord> poll = context.store.createPoll(
      definition.appToken, definition.question, definition.options, definition.category);
  if (!poll) {
    sendError(response, 500, "could not store the poll");
    return;
  }
  publishPollEvent(context.events, "poll_created", *poll);
  sendJson(response, 201, pollJson(*poll));
}

void listPolls(const httplib::Request& request, httplib::Response& response,
               AdminContext& context) {
  json polls = json::array();
  for (const PollRecord& poll : context.store.polls(appQuery(request))) {
    polls.push_back(pollJson(poll));
  }
  sendJson(response, 200, json{{"polls", std::move(polls)}});
}

void deletePoll(const httplib::Request& request, httplib::Response& response,
                AdminContext& context) {
  std::optional<PollRecord> poll = routedPoll(request, response, context.store);
  if (!poll) return;
  if (!context.store.deletePoll(poll->id)) {
    sendError(response, 404, "unknown poll " + std::to_string(poll->id));
    return;
  }
  publishPollEvent(context.events, "poll_deleted", *poll);
  sendJson(response, 200, json{{"deleted", poll->id}});
}

void pollResults(const httplib::Request& request, httplib::Response& response,
                 AdminContext& context) {
  std::optional<PollRecord> poll = routedPoll(request, response, context.store);
  if (!poll) return;
  sendJson(response, 200, resultsJson(*poll, context.store.replyCounts(poll->id)));
}

void listReplies(const httplib::Request& request, httplib::Response& response,
                 AdminContext& context) {
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
    if (!context.store.poll(*pollId)) {
      sendError(response, 404, "unknown poll " + *pollText);
      return;
    }
  }
  json replies = json::array();
  for (const ReplyRecord& reply : context.store.replies(pollId, appQuery(request))) {
    replies.push_back(replyJson(reply));
  }
  sendJson(response, 200, json{{"replies", std::move(replies)}});
}

void listDevices(const httplib::Request& request, httplib::Response& response,
                 AdminContext& context) {
  json devices = json::array();
  for (const DeviceRecord& device : context.store.devices(appQuery(request))) {
    devices.push_back(deviceJson(device));
  }
  sendJson(response, 200, json{{"devices", std::move(devices)}});
}

void pushPoll(const httplib::Request& request, httplib::Response& response, AdminContext& context) {
  std::optional<PollRecord> poll = routedPoll(request, response, context.store);
  if (!poll) return;
  json body = request.body.empty() ? json::object() : json::parse(request.body, nullptr, false);
  if (!body.is_object()) {
    sendError(response, 400, "the body must be a JSON object");
    return;
  }
  std::string alert = poll->question;
  std::string category = poll->category;
  std::optional<std::vector<std::string>> chosen;
  for (const auto& [key, value] : body.items()) {
    if (key == "alert" && isNonEmptyString(value)) {
      alert = value.get<std::string>();
    } else if (key == "category" && value.is_string() && isCategory(value.get<std::string>())) {
      category = value.get<std::string>();
    } else if (key == "devices" && value.is_array() &&
               std::all_of(value.begin(), value.end(), isNonEmptyString)) {
      chosen = value.get<std::vector<std::string>>();
    } else {
      sendError(response, 400,
                "\"" + key +
                    "\" is unknown or invalid (alert: text, category: one of the six "
                    "categories, devices: push tokens)");
      return;
    }
  }
  std::vector<std::string> tokens;
  for (const DeviceRecord& device : context.store.devices(poll->appToken)) {
    if (!chosen || std::find(chosen->begin(), chosen->end(), device.pushToken) != chosen->end()) {
      tokens.push_back(device.pushToken);
    }
  }
  if (chosen && tokens.size() != chosen->size()) {
    sendError(response, 400, "\"devices\" names a push token not registered for the poll's app");
    return;
  }
  if (context.push == nullptr) {
    sendError(response, 503, "push sending is not set up");
    return;
  }
  json payload{{"aps", {{"alert", alert}, {"category", category}}},
               {"poll", pollDictionary(*poll)}};
  PushOutcome outcome = context.push->publish(tokens, payload.dump());
  if (!outcome.error.empty()) {
    std::fprintf(stderr, "quorvia-devserver: push of poll %lld failed: %s\n",
                 static_cast<long long>(poll->id), outcome.error.c_str());
    sendJson(
        response, 502,
        json{{"error", outcome.error}, {"sent", outcome.published}, {"devices", tokens.size()}});
    return;
  }
  sendJson(response, 200, json{{"sent", outcome.published}, {"devices", tokens.size()}});
}

void eventStream(const httplib::Request&, httplib::Response& response, AdminContext& context,
                 std::atomic<int>& open) {
  if (open.fetch_add(1) >= kMaxStreams) {
    open.fetch_sub(1);
    sendError(response, 503, "too many open event streams");
    return;
  }
  EventHub& events = context.events;
  std::shared_ptr<EventHub::Reader> reader = events.subscribe();
  if (!reader) {
    open.fetch_sub(1);
    sendError(response, 503, "cannot follow events now");
    return;
  }
  response.set_header("Cache-Control", "no-store");
  response.set_chunked_content_provider(
      "text/event-stream",
      [&events, reader, connection = GuardedServer::servingSocket(), started = Clock::now(),
       greeted = false](size_t, httplib::DataSink& sink) mutable {
        if (!greeted) {
          greeted = true;
          // Tells the browser how soon to come back when the stream ends.
          const std::string hello = "retry: 1000\n: connected\n\n";
          return sink.write(hello.data(), hello.size());
        }
        bool hungUp = false;
        std::vector<std::string> batch = events.wait(*reader, kHeartbeat, connection, &hungUp);
        // Gives the stream's slot back now rather than at the next heartbeat's failed write.
        if (hungUp) return false;
        if (events.closed() || Clock::now() - started > kMaxStreamAge) {
          sink.done();
          return true;
        }
        std::string text = batch.empty() ? ": heartbeat\n\n" : "";
        for (const std::string& event : batch) text += "data: " + event + "\n\n";
        return sink.write(text.data(), text.size());
      },
      [&open](bool) { open.fetch_sub(1); });
}

}  // namespace

void installAdminApi(httplib::Server& server, AdminContext context) {
  auto shared = std::make_shared<AdminContext>(context);
  auto streams = std::make_shared<std::atomic<int>>(0);
  auto bind = [shared](auto handler) {
    return [shared, handler](const httplib::Request& request, httplib::Response& response) {
      handler(request, response, *shared);
    };
  };
  size_t limit = context.maxBodyBytes;
  server.Post(R"(/admin/polls/?)", withBoundedBody(limit, bind(createPoll)));
  server.Get(R"(/admin/polls/?)", bind(listPolls));
  server.Delete(R"(/admin/polls/([^/]+)/?)", bind(deletePoll));
  server.Delete(R"(/admin/polls/([^/]+)/?)", withBoundedBody(limit, bind(deletePoll)));
  server.Get(R"(/admin/polls/([^/]+)/results/?)", bind(pollResults));
  server.Get(R"(/admin/polls/([^/]+)/replies/?)", bind(listReplies));
  server.Post(R"(/admin/polls/([^/]+)/push/?)", withBoundedBody(limit, bind(pushPoll)));
  server.Get(R"(/admin/replies/?)", bind(listReplies));
  server.Get(R"(/admin/devices/?)", bind(listDevices));
  server.Get(R"(/admin/events/?)",
             [shared, streams](const httplib::Request& request, httplib::Response& response) {
               eventStream(request, response, *shared, *streams);
             });
}

}  // namespace quorvia::devserver
