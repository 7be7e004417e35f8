#pragma once

// Runs a quorvia-devserver in-process on 127.0.0.1 with an ephemeral port and a temporary
// database, and talks to it the way the SDK and an admin script do.

#include <gtest/gtest.h>
#include <httplib.h>

#include <filesystem>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "DevServer.h"
#include "PushFanout.h"

namespace quorvia::devserver::testing {

class DevServerTest : public ::testing::Test {
 protected:
  static constexpr const char* kSecret = "test-signing-secret";
  static constexpr size_t kMaxBody = 64 * 1024;
  static constexpr const char* kAdminToken = "test-admin-token";

  void SetUp() override;
  void TearDown() override;

  // Starts a server on the fixture's database; an empty secret uses the stored one.
  void startServer(const std::string& jwtSecret = kSecret);
  void stopServer();

  // A client that sends the admin token with every request; plainClient() sends none.
  httplib::Client client() const;
  httplib::Client plainClient() const;

  // A POST as the SDK sends it: raw body, no Content-Type, optional "JWT" authorisation.
  httplib::Result sdkPost(const std::string& path, const std::string& body,
                          const std::optional<std::string>& token = std::nullopt) const;
  httplib::Result sdkGet(const std::string& path,
                         const std::optional<std::string>& token = std::nullopt) const;

  // Admin helpers; they fail the test on an unexpected status.
  nlohmann::json createPoll(const std::string& appToken, const std::string& question,
                            const nlohmann::json& options);
  nlohmann::json adminGet(const std::string& path);
  // Registers a device with the body the SDK writes and returns its access token.
  std::string registerDevice(const std::string& pushToken, const std::string& appToken);
  // The ids of the polls the device is offered, in the order the service lists them.
  std::vector<int64_t> fetchedPollIds(const std::string& appToken, const std::string& token);

  std::vector<std::string> requestLines();

  std::filesystem::path directory_;
  int port_ = 0;
  // Handed to the next startServer(); must outlive the server.
  PushFanout* push_ = nullptr;

 private:
  std::unique_ptr<DevServer> server_;
  std::thread serving_;
  std::mutex linesMutex_;
  std::vector<std::string> lines_;
};

// Parses a JSON body, or returns a discarded value when it is not JSON.
nlohmann::json bodyJson(const httplib::Result& result);

}  // namespace quorvia::devserver::testing
