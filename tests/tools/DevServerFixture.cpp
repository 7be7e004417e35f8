#include "DevServerFixture.h"

#include "support/PlatformTest.h"

namespace quorvia::devserver::testing {

using nlohmann::json;

void DevServerTest::SetUp() {
  directory_ = quorvia::testing::makeTempDirectory("devserver");
  startServer();
}

void DevServerTest::TearDown() {
  stopServer();
  std::filesystem::remove_all(directory_);
}

void DevServerTest::startServer(const std::string& jwtSecret) {
  DevServerOptions options;
  options.database = directory_ / "devserver.sqlite3";
  options.jwtSecret = jwtSecret;
  options.maxBodyBytes = kMaxBody;
  options.adminToken = kAdminToken;
  options.push = push_;
  options.requestLog = [this](const std::string& line) {
    std::lock_guard lock(linesMutex_);
    lines_.push_back(line);
  };
  std::string error;
  server_ = DevServer::open(std::move(options), &error);
  ASSERT_TRUE(server_) << error;
  port_ = server_->bind("127.0.0.1", 0);
  ASSERT_GT(port_, 0);
  serving_ = std::thread([server = server_.get()] { server->run(); });
}

void DevServerTest::stopServer() {
  if (!server_) return;
  server_->stop();
  serving_.join();
  server_.reset();
}

httplib::Client DevServerTest::client() const {
  httplib::Client client = plainClient();
  client.set_default_headers({{AdminGate::kHeader, kAdminToken}});
  return client;
}

httplib::Client DevServerTest::plainClient() const {
  httplib::Client client("127.0.0.1", port_);
  client.set_connection_timeout(5);
  client.set_read_timeout(10);
  return client;
}

httplib::Result DevServerTest::sdkPost(const std::string& path, const std::string& body,
                                       const std::optional<std::string>& token) const {
  httplib::Headers headers;
  if (token) headers.emplace("Authorization", "JWT " + *token);
  httplib::Request request;
  request.method = "POST";
  request.path = path;
  request.headers = headers;
  request.body = body;
  return client().send(request);
}

httplib::Result DevServerTest::sdkGet(const std::string& path,
                                      const std::optional<std::string>& token) const {
  httplib::Headers headers;
  if (token) headers.emplace("Authorization", "JWT " + *token);
  return client().Get(path, headers);
}

json DevServerTest::createPoll(const std::string& appToken, const std::string& question,
                               const json& options) {
  json body{{"app_token", appToken}, {"question", question}, {"options", options}};
  httplib::Result result = client().Post("/admin/polls", body.dump(), "application/json");
  EXPECT_TRUE(result);
  if (!result) return json();
  EXPECT_EQ(result->status, 201) << result->body;
  return bodyJson(result);
}

json DevServerTest::adminGet(const std::string& path) {
  httplib::Result result = client().Get(path);
  EXPECT_TRUE(result);
  if (!result) return json();
  EXPECT_EQ(result->status, 200) << result->body;
  return bodyJson(result);
}

std::string DevServerTest::registerDevice(const std::string& pushToken,
                                          const std::string& appToken) {
  httplib::Result result = sdkPost(
      "/endpoints/", "push_token=" + pushToken + "&app_token=" + appToken + "&platform=ios");
  EXPECT_TRUE(result);
  if (!result) return {};
  EXPECT_EQ(result->status, 200) << result->body;
  json body = bodyJson(result);
  if (!body.is_object() || !body["access_token"].is_string()) {
    ADD_FAILURE() << "no access_token in " << result->body;
    return {};
  }
  return body["access_token"].get<std::string>();
}

std::vector<int64_t> DevServerTest::fetchedPollIds(const std::string& appToken,
                                                   const std::string& token) {
  std::vector<int64_t> ids;
  httplib::Result result = sdkGet("/apps/" + appToken + "/polls/", token);
  EXPECT_TRUE(result);
  if (!result) return ids;
  EXPECT_EQ(result->status, 200) << result->body;
  json body = bodyJson(result);
  if (!body.is_object() || !body["results"].is_array()) {
    ADD_FAILURE() << "no results in " << result->body;
    return ids;
  }
  for (const json& poll : body["results"]) ids.push_back(poll["id"].get<int64_t>());
  return ids;
}

std::vector<std::string> DevServerTest::requestLines() {
  std::lock_guard lock(linesMutex_);
  return lines_;
}

json bodyJson(const httplib::Result& result) {
  if (!result) return json(json::value_t::discarded);
  return json::parse(result->body, nullptr, false);
}

}  // namespace quorvia::devserver::testing
