#include "Dashboard.h"

#include <string>

#include "AdminGate.h"
#include "DashboardAssets.h"
#include "JsonResponse.h"

namespace quorvia::devserver {

namespace {

const char* contentType(std::string_view name) {
  if (name.ends_with(".html")) return "text/html; charset=utf-8";
  if (name.ends_with(".js")) return "text/javascript; charset=utf-8";
  if (name.ends_with(".css")) return "text/css; charset=utf-8";
  if (name.ends_with(".svg")) return "image/svg+xml";
  return "application/octet-stream";
}

const EmbeddedAsset* findAsset(std::string_view name) {
  for (const EmbeddedAsset& asset : dashboardAssets()) {
    if (name == asset.name) return &asset;
  }
  return nullptr;
}

void serve(const EmbeddedAsset& asset, httplib::Response& response) {
  response.set_header("Cache-Control", "no-store");
  response.set_header("X-Content-Type-Options", "nosniff");
  response.set_header("Referrer-Policy", "no-referrer");
  response.set_header("Content-Security-Policy",
                      "default-src 'self'; img-src 'self' data:; frame-ancestors 'none'");
  response.set_content(std::string(asset.text()), contentType(asset.name));
}

}  // namespace

void installDashboard(httplib::Server& server) {
  server.Get("/", [](const httplib::Request& request, httplib::Response& response) {
    const EmbeddedAsset* page = findAsset("index.html");
    if (page == nullptr) {
      sendError(response, 404, "this build has no dashboard");
      return;
    }
    if (request.has_param("token")) {
      // The gate has checked it; the cookie saves the page from carrying it in every URL.
      response.set_header("Set-Cookie", std::string(AdminGate::kCookie) + "=" +
                                            request.get_param_value("token") +
                                            "; Path=/; HttpOnly; SameSite=Strict");
    }
    serve(*page, response);
  });
  server.Get(R"(/dashboard/([A-Za-z0-9_.-]+))",
             [](const httplib::Request& request, httplib::Response& response) {
               const EmbeddedAsset* asset = findAsset(request.matches[1].str());
               if (asset == nullptr || std::string_view(asset->name) == "index.html") {
                 sendError(response, 404, "not found");
                 return;
               }
               serve(*asset, response);
             });
}

}  // namespace quorvia::devserver
