#include "AdminJson.h"

#include <cmath>
#include <map>

#include "Categories.h"

namespace quorvia::devserver {

using nlohmann::json;

namespace {

json optionsJson(const std::vector<PollOption>& options) {
  json list = json::array();
  for (const PollOption& option : options) {
    json entry{{"text", option.text}};
    if (option.link) entry["link"] = *option.link;
    list.push_back(std::move(entry));
  }
  return list;
}

double percentOf(int64_t count, int64_t total) {
  if (total == 0) return 0;
  return std::round(1000.0 * static_cast<double>(count) / static_cast<double>(total)) / 10.0;
}

}  // namespace

json pollJson(const PollRecord& poll) {
  return json{{"id", poll.id},
              {"app_token", poll.appToken},
              {"question", poll.question},
              {"options", optionsJson(poll.options)},
              {"category", poll.category},
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
              {"updated_at", device.updatedAt},
              {"last_seen_at", device.lastSeenAt ? json(*device.lastSeenAt) : json(nullptr)}};
}

json replyJson(const ReplyRecord& reply) {
  return json{{"id", reply.id},
              {"poll_id", reply.pollId},
              {"reply_text", reply.replyText},
              {"device", deviceJson(reply.device)},
              {"created_at", reply.createdAt}};
}

json resultsJson(const PollRecord& poll,
                 const std::vector<std::pair<std::string, int64_t>>& counts) {
  std::map<std::string, int64_t> left(counts.begin(), counts.end());
  int64_t dismissals = 0;
  if (auto it = left.find(std::string(kDismissReply)); it != left.end()) {
    dismissals = it->second;
    left.erase(it);
  }
  // Percentages are of the answers; a dismissal is no answer.
  int64_t answers = 0;
  for (const auto& [text, count] : left) answers += count;
  json options = json::array();
  for (const PollOption& option : poll.options) {
    int64_t count = 0;
    if (auto it = left.find(option.text); it != left.end()) {
      count = it->second;
      left.erase(it);
    }
    json entry{{"text", option.text}, {"count", count}, {"percent", percentOf(count, answers)}};
    if (option.link) entry["link"] = *option.link;
    options.push_back(std::move(entry));
  }
  json other = json::array();
  for (const auto& [text, count] : counts) {
    if (left.contains(text)) {
      other.push_back({{"text", text}, {"count", count}, {"percent", percentOf(count, answers)}});
    }
  }
  return json{{"poll", pollJson(poll)},    {"options", std::move(options)},
              {"other", std::move(other)}, {"dismissals", dismissals},
              {"answers", answers},        {"total", answers + dismissals}};
}

json pollDictionary(const PollRecord& poll) {
  return json{{"id", poll.id}, {"question", poll.question}, {"options", optionsJson(poll.options)}};
}

}  // namespace quorvia::devserver
