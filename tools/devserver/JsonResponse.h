#pragma once

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <string_view>

namespace quorvia::devserver {

// Answers `response` with `status` and `body` as "application/json". Text that is not valid
// UTF-8 (the SDK's bodies are taken byte for byte) is written with replacement characters
// instead of failing.
void sendJson(httplib::Response& response, int status, const nlohmann::json& body);

// Answers `response` with `status` and the body {"error": message}.
void sendError(httplib::Response& response, int status, std::string_view message);

}  // namespace quorvia::devserver
