#pragma once
// Internal: records calls of the operations whose bodies are still placeholders
// (interception, service calls, the banner), so that their callers can be
// checked to reach them with the right arguments before they are built. Each
// placeholder's replacement removes its use of this record.

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "quorvia/platform/Value.h"

namespace quorvia::detail {

struct ReplyCall {
  std::optional<std::string> identifier;
  std::optional<platform::Value> pollId;            // the pollId form
  std::optional<platform::Value> userInfo;          // the userInfo form
  bool viaUserInfo = false;
  std::function<void()> completionHandler;
};

struct CallTrace {
  std::atomic<int> fetchPolls{0};
  std::atomic<int> presentPoll{0};
  std::atomic<int> showOptions{0};

  std::mutex mu;
  std::vector<ReplyCall> replies;
  std::vector<std::optional<platform::Bytes>> deviceTokens;
  std::vector<std::optional<platform::Value>> userInfos;
};

CallTrace& callTrace();

}  // namespace quorvia::detail
