#pragma once

// Runs a quorvia-devserver in-process on 127.0.0.1 with an ephemeral port and a temporary
// database, and talks to it the way the SDK and an admin script do.

#include <gtest/gtest.h>
#include <httplib.h>

#include <filesystem>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "DevServer.h"
#include "PushFanout.h"
#include "support/PlatformTest.h"

namespace quorvia::devserver::testing {

using nlohmann::json;

// A JSON body, or a discarded value when it is not JSON.
inline json bodyJson(const httplib::Result& result) {
  return result ? json::parse(result->body, nullptr, false) : json(json::value_t::discarded);
}
inline int statusOf(const httplib::Result& result) { return result ? result->status : -1; }

class DevServerTest : public ::testing::Test {
 protected:
  static constexpr const char* kSecret = "test-signing-secret";
  static constexpr size_t kMaxBody = 64 * 1024;
  static constexpr const char* kAdminToken = "test-admin-token";

  void SetUp() override {
    directory_ = quorvia::testing::makeTempDirectory("devserver");
    startServer();
  }
  void TearDown() override {
    stopServer();
    std::filesystem::remove_all(directory_);
  }

  // (Re)starts the server on the fixture's database; an empty secret uses the stored one.
  void startServer(const std::string& jwtSecret = kSecret) {
    stopServer();
    auto log = [this](const std::string& line) {
      std::lock_guard lock(linesMutex_);
      lines_.push_back(line);
    };
    std::string error;
    server_ = DevServer::open({directory_ / "devserver.sqlite3", jwtSecret, kMaxBody, kAdminToken,
                               push_.get(), limits_, log},
                              &error);
    ASSERT_TRUE(server_) << error;
    port_ = server_->bind("127.0.0.1", 0);
    ASSERT_GT(port_, 0);
    serving_ = std::thread([server = server_.get()] { server->run(); });
  }
  void stopServer() {
    if (!server_) return;
    server_->stop();
    serving_.join();
    server_.reset();
  }

  // A client that sends the admin token with every request, unless `admin` is false.
  httplib::Client client(bool admin = true) const {
    httplib::Client client("127.0.0.1", port_);
    client.set_connection_timeout(5);
    client.set_read_timeout(10);
    if (admin) client.set_default_headers({{AdminGate::kHeader, kAdminToken}});
    return client;
  }
  // A request as the SDK sends it: a GET without `body`, else a POST of the raw body without
  // Content-Type; "JWT" authorisation with a non-empty `token`.
  httplib::Result sdk(const std::string& path, const std::string& token,
                      const std::optional<std::string>& body = std::nullopt) const {
    httplib::Request request;
    request.method = body ? "POST" : "GET";
    request.path = path;
    request.body = body.value_or("");
    if (!token.empty()) request.set_header("Authorization", "JWT " + token);
    return client().send(request);
  }

  // Steps of the admin and the SDK; an unexpected answer fails the test.
  json createPoll(const std::string& app, const std::string& question, const json& options) {
    json body{{"app_token", app}, {"question", question}, {"options", options}};
    httplib::Result result = client().Post("/admin/polls", body.dump(), "application/json");
    EXPECT_EQ(statusOf(result), 201);
    return bodyJson(result);
  }
  json adminGet(const std::string& path) {
    httplib::Result result = client().Get(path);
    EXPECT_EQ(statusOf(result), 200) << path;
    return bodyJson(result);
  }
  // Registers with the body the SDK writes; returns the access token.
  std::string registerDevice(const std::string& pushToken, const std::string& app) {
    return bodyJson(sdk("/endpoints/", "",
                        "push_token=" + pushToken + "&app_token=" + app + "&platform=ios"))
        .at("access_token");
  }
  // The ids of the polls the device is offered, in the order the service lists them.
  std::vector<int64_t> fetchedPollIds(const std::string& app, const std::string& token) {
    json body = bodyJson(sdk("/apps/" + app + "/polls/", token));
    std::vector<int64_t> ids;
    for (const json& poll : body.at("results")) ids.push_back(poll.at("id"));
    return ids;
  }
  std::string replyPath(const json& poll) const {
    return "/polls/" + poll["id"].dump() + "/replies/";
  }

  std::filesystem::path directory_;
  int port_ = 0;
  // Taken by the next startServer().
  std::unique_ptr<PushFanout> push_;
  ConnectionLimits limits_;
  std::vector<std::string> lines_;  // the request log; complete once the server has stopped

 private:
  std::unique_ptr<DevServer> server_;
  std::thread serving_;
  std::mutex linesMutex_;
};

}  // namespace quorvia::devserver::testing
