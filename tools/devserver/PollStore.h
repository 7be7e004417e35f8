#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace quorvia::devserver {

// One answer option of a poll; `link` is absent when the option has none.
struct PollOption {
  std::string text;
  std::optional<std::string> link;
};

// A poll as stored: `id` grows with creation, so ordering by it is oldest first.
struct PollRecord {
  int64_t id = 0;
  std::string appToken;
  std::string question;
  std::vector<PollOption> options;
  std::string createdAt;  // UTC, ISO 8601 with milliseconds
  int64_t replyCount = 0;
  std::string category;  // the notification category a push of this poll uses
};

// A registered device: one per (app token, push token) pair.
struct DeviceRecord {
  int64_t id = 0;
  std::string appToken;
  std::string pushToken;
  std::string platform;
  std::optional<std::string> userInfo;  // the text the SDK posted, verbatim
  std::string createdAt;
  std::string updatedAt;
  std::optional<std::string> lastSeenAt;  // the device's latest call: registration or authorised
};

// A recorded reply with the device that sent it.
struct ReplyRecord {
  int64_t id = 0;
  int64_t pollId = 0;
  std::string replyText;
  std::string createdAt;
  DeviceRecord device;
};

// The devserver's SQLite database: polls, devices, replies and the server's own settings.
// Every method is safe to call from any thread (calls are serialised on one connection); a
// method that fails writes a line to stderr and returns false, nullopt or an empty list, and
// leaves the database as it was (multi-row writes run in one transaction).
class PollStore final {
 public:
  // Opens (creating when needed) the database at `path` and its schema. On failure returns null
  // and sets `*error` to a readable reason.
  static std::unique_ptr<PollStore> open(const std::filesystem::path& path, std::string* error);

  ~PollStore();
  PollStore(const PollStore&) = delete;
  PollStore& operator=(const PollStore&) = delete;

  // The value stored under `key` in the settings table, if any.
  std::optional<std::string> setting(const std::string& key);
  // Stores `value` under `key`, replacing any earlier value.
  bool setSetting(const std::string& key, const std::string& value);

  // Records the device, or refreshes its platform and update time when the pair is known; either
  // way the registration is the device's latest call.
  std::optional<DeviceRecord> registerDevice(const std::string& appToken,
                                             const std::string& pushToken,
                                             const std::string& platform);
  std::optional<DeviceRecord> device(int64_t id);
  std::vector<DeviceRecord> devices(const std::optional<std::string>& appToken);
  bool setUserInfo(int64_t deviceId, const std::string& userInfo);
  // Records that the device just made an authorised call.
  void touchDevice(int64_t deviceId);

  // Stores a new poll with its options; returns it with its id and time.
  std::optional<PollRecord> createPoll(const std::string& appToken, const std::string& question,
                                       const std::vector<PollOption>& options,
                                       const std::string& category = "Yes.No");
  // Removes the poll with its options and replies; false when there is no such poll.
  bool deletePoll(int64_t id);
  // How often each reply text was sent to the poll, most frequent first.
  std::vector<std::pair<std::string, int64_t>> replyCounts(int64_t pollId);
  std::optional<PollRecord> poll(int64_t id);
  // Every poll (of `appToken` when given), oldest first.
  std::vector<PollRecord> polls(const std::optional<std::string>& appToken);
  // The app's polls the device has not replied to (any reply, "Dismiss" included), oldest first.
  std::vector<PollRecord> pendingPolls(const std::string& appToken, int64_t deviceId);

  std::optional<ReplyRecord> addReply(int64_t pollId, int64_t deviceId,
                                      const std::string& replyText);
  // Replies, oldest first, filtered by poll and/or app when given.
  std::vector<ReplyRecord> replies(const std::optional<int64_t>& pollId,
                                   const std::optional<std::string>& appToken);

 private:
  explicit PollStore(sqlite3* db);

  using SqlArg = std::variant<std::string, int64_t>;

  // The caller holds mutex_ in all of these.
  std::vector<PollRecord> queryPolls(const std::string& where, const std::vector<SqlArg>& args);
  std::vector<DeviceRecord> queryDevices(const std::string& where, const std::vector<SqlArg>& args);
  std::vector<ReplyRecord> queryReplies(const std::string& where, const std::vector<SqlArg>& args);

  std::mutex mutex_;
  sqlite3* db_;
};

}  // namespace quorvia::devserver
