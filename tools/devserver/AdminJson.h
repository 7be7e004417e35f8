#pragma once

#include <nlohmann/json.hpp>

#include "PollStore.h"

namespace quorvia::devserver {

// The admin API's JSON form of the store's records.
nlohmann::json pollJson(const PollRecord& poll);
nlohmann::json deviceJson(const DeviceRecord& device);
nlohmann::json replyJson(const ReplyRecord& reply);

// A poll's tally: a bar per option in option order, "Dismiss" apart, and reply texts that are
// neither under "other" (a device of an older poll version, a hand-made request).
nlohmann::json resultsJson(const PollRecord& poll,
                           const std::vector<std::pair<std::string, int64_t>>& counts);

// The poll dictionary as devices read it, in fetch answers and push payloads.
nlohmann::json pollDictionary(const PollRecord& poll);

}  // namespace quorvia::devserver
