#include "JsonResponse.h"

#include <string>

namespace quorvia::devserver {

void sendJson(httplib::Response& response, int status, const nlohmann::json& body) {
  response.status = status;
  response.set_content(body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace),
                       "application/json");
}

void sendError(httplib::Response& response, int status, std::string_view message) {
  sendJson(response, status, nlohmann::json{{"error", std::string(message)}});
}

}  // namespace quorvia::devserver
