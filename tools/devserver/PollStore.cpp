#include "PollStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace quorvia::devserver {

namespace {

constexpr const char* kSchema = R"sql(
PRAGMA foreign_keys = ON;
PRAGMA journal_mode = WAL;
PRAGMA synchronous = NORMAL;
CREATE TABLE IF NOT EXISTS settings (
  key TEXT PRIMARY KEY,
  value TEXT NOT NULL
);
CREATE TABLE IF NOT EXISTS devices (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  app_token TEXT NOT NULL,
  push_token TEXT NOT NULL,
  platform TEXT NOT NULL,
  user_info TEXT,
  created_at TEXT NOT NULL,
  updated_at TEXT NOT NULL,
  last_seen_at TEXT,
  UNIQUE (app_token, push_token)
);
CREATE TABLE IF NOT EXISTS polls (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  app_token TEXT NOT NULL,
  question TEXT NOT NULL,
  created_at TEXT NOT NULL,
  category TEXT NOT NULL DEFAULT 'Yes.No'
);
CREATE TABLE IF NOT EXISTS poll_options (
  poll_id INTEGER NOT NULL REFERENCES polls(id),
  position INTEGER NOT NULL,
  text TEXT NOT NULL,
  link TEXT,
  PRIMARY KEY (poll_id, position)
);
CREATE TABLE IF NOT EXISTS replies (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  poll_id INTEGER NOT NULL REFERENCES polls(id),
  device_id INTEGER NOT NULL REFERENCES devices(id),
  reply_text TEXT NOT NULL,
  created_at TEXT NOT NULL
);
CREATE INDEX IF NOT EXISTS replies_by_device ON replies (device_id, poll_id);
CREATE INDEX IF NOT EXISTS replies_by_poll ON replies (poll_id);
)sql";

// Columns added after the first release; adding one that exists fails harmlessly.
constexpr const char* kLaterColumns[] = {
    "ALTER TABLE devices ADD COLUMN last_seen_at TEXT",
    "ALTER TABLE polls ADD COLUMN category TEXT NOT NULL DEFAULT 'Yes.No'",
};

constexpr const char* kNow = "strftime('%Y-%m-%dT%H:%M:%fZ', 'now')";

void logError(sqlite3* db, const char* what) {
  std::fprintf(stderr, "quorvia-devserver: database error while %s: %s\n", what,
               sqlite3_errmsg(db));
}

// One prepared statement, finalized on scope exit.
class Statement final {
 public:
  Statement(sqlite3* db, const std::string& sql) : db_(db) {
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt_, nullptr) != SQLITE_OK) {
      logError(db, "preparing a statement");
      stmt_ = nullptr;
    }
  }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  bool ok() const { return stmt_ != nullptr; }

  template <typename Arg>
  Statement& bind(const Arg& arg) {
    if (stmt_ == nullptr) return *this;
    ++index_;
    if constexpr (std::is_same_v<Arg, std::string>) {
      sqlite3_bind_text(stmt_, index_, arg.data(), static_cast<int>(arg.size()), SQLITE_TRANSIENT);
    } else if constexpr (std::is_same_v<Arg, std::optional<std::string>>) {
      if (arg) {
        sqlite3_bind_text(stmt_, index_, arg->data(), static_cast<int>(arg->size()),
                          SQLITE_TRANSIENT);
      } else {
        sqlite3_bind_null(stmt_, index_);
      }
    } else {
      sqlite3_bind_int64(stmt_, index_, arg);
    }
    return *this;
  }

  // SQLITE_ROW, SQLITE_DONE, or an error code (logged).
  int step() {
    if (stmt_ == nullptr) return SQLITE_ERROR;
    int rc = sqlite3_step(stmt_);
    if (rc != SQLITE_ROW && rc != SQLITE_DONE) logError(db_, "running a statement");
    return rc;
  }

  int64_t integer(int column) { return sqlite3_column_int64(stmt_, column); }
  std::string text(int column) {
    const unsigned char* value = sqlite3_column_text(stmt_, column);
    if (value == nullptr) return {};
    return std::string(reinterpret_cast<const char*>(value),
                       static_cast<size_t>(sqlite3_column_bytes(stmt_, column)));
  }
  std::optional<std::string> optionalText(int column) {
    if (sqlite3_column_type(stmt_, column) == SQLITE_NULL) return std::nullopt;
    return text(column);
  }

 private:
  sqlite3* db_;
  sqlite3_stmt* stmt_ = nullptr;
  int index_ = 0;
};

// Rolls back unless committed, so a failed multi-row write leaves nothing behind.
class Transaction final {
 public:
  explicit Transaction(sqlite3* db) : db_(db) {
    began_ = sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_OK;
    if (!began_) logError(db_, "beginning a transaction");
  }
  ~Transaction() {
    if (began_ && !committed_) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  bool began() const { return began_; }
  bool commit() {
    committed_ = sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
    if (!committed_) logError(db_, "committing a transaction");
    return committed_;
  }

 private:
  sqlite3* db_;
  bool began_ = false;
  bool committed_ = false;
};

void bindAll(Statement& statement, const std::vector<std::variant<std::string, int64_t>>& args) {
  for (const auto& arg : args) {
    std::visit([&](const auto& value) { statement.bind(value); }, arg);
  }
}

constexpr const char* kDeviceColumns =
    "d.id, d.app_token, d.push_token, d.platform, d.user_info, d.created_at, d.updated_at, "
    "d.last_seen_at";

DeviceRecord readDevice(Statement& s, int first) {
  return DeviceRecord{s.integer(first),  s.text(first + 1),         s.text(first + 2),
                      s.text(first + 3), s.optionalText(first + 4), s.text(first + 5),
                      s.text(first + 6), s.optionalText(first + 7)};
}

// The database holds the token signing key and what users told the service: it and its
// journal are readable by their owner only, in a directory only the owner can list.
bool prepareOwnerOnlyFile(const std::filesystem::path& path, std::string* error) {
  std::filesystem::path parent = path.parent_path();
  std::vector<std::filesystem::path> missing;
  for (std::filesystem::path dir = parent; !dir.empty() && !std::filesystem::exists(dir);
       dir = dir.parent_path()) {
    missing.push_back(dir);
    if (dir == dir.parent_path()) break;
  }
  for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
    if (::mkdir(it->c_str(), 0700) != 0 && errno != EEXIST) {
      if (error) *error = "cannot create " + it->string() + ": " + std::strerror(errno);
      return false;
    }
  }
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) {
    if (error) *error = "cannot open " + path.string() + ": " + std::strerror(errno);
    return false;
  }
  // An older database may still be readable by others; SQLite gives new journals the mode of
  // the database file, so tightening it covers them too.
  ::fchmod(fd, 0600);
  ::close(fd);
  for (const char* suffix : {"-wal", "-shm", "-journal"}) {
    std::filesystem::path companion = path.string() + suffix;
    if (std::filesystem::exists(companion)) ::chmod(companion.c_str(), 0600);
  }
  return true;
}

}  // namespace

std::unique_ptr<PollStore> PollStore::open(const std::filesystem::path& path, std::string* error) {
  if (!prepareOwnerOnlyFile(path, error)) return nullptr;
  sqlite3* db = nullptr;
  int rc =
      sqlite3_open_v2(path.c_str(), &db,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, nullptr);
  if (rc != SQLITE_OK) {
    if (error) *error = "cannot open " + path.string() + ": " + sqlite3_errstr(rc);
    sqlite3_close(db);
    return nullptr;
  }
  sqlite3_busy_timeout(db, 2000);
  char* message = nullptr;
  if (sqlite3_exec(db, kSchema, nullptr, nullptr, &message) != SQLITE_OK) {
    if (error) {
      *error = "cannot use " + path.string() +
               " as the devserver database: " + (message ? message : "unknown error");
    }
    sqlite3_free(message);
    sqlite3_close(db);
    return nullptr;
  }
  for (const char* column : kLaterColumns) sqlite3_exec(db, column, nullptr, nullptr, nullptr);
  return std::unique_ptr<PollStore>(new PollStore(db));
}

PollStore::PollStore(sqlite3* db) : db_(db) {}

PollStore::~PollStore() { sqlite3_close(db_); }

std::optional<std::string> PollStore::setting(const std::string& key) {
  std::lock_guard lock(mutex_);
  Statement s(db_, "SELECT value FROM settings WHERE key = ?");
  s.bind(key);
  if (s.step() != SQLITE_ROW) return std::nullopt;
  return s.text(0);
}

bool PollStore::setSetting(const std::string& key, const std::string& value) {
  std::lock_guard lock(mutex_);
  Statement s(db_, "INSERT OR REPLACE INTO settings (key, value) VALUES (?, ?)");
  s.bind(key).bind(value);
  return s.step() == SQLITE_DONE;
}

std::optional<DeviceRecord> PollStore::registerDevice(const std::string& appToken,
                                                      const std::string& pushToken,
                                                      const std::string& platform) {
  std::lock_guard lock(mutex_);
  // Registering is a call from the device too: it counts as the last one.
  Statement upsert(db_, std::string("INSERT INTO devices (app_token, push_token, platform, "
                                    "created_at, updated_at, last_seen_at) VALUES (?, ?, ?, ") +
                            kNow + ", " + kNow + ", " + kNow +
                            ") ON CONFLICT (app_token, push_token) DO UPDATE SET "
                            "platform = excluded.platform, updated_at = excluded.updated_at, "
                            "last_seen_at = excluded.last_seen_at");
  upsert.bind(appToken).bind(pushToken).bind(platform);
  if (upsert.step() != SQLITE_DONE) return std::nullopt;
  std::vector<DeviceRecord> found =
      queryDevices("d.app_token = ? AND d.push_token = ?", {appToken, pushToken});
  if (found.empty()) return std::nullopt;
  return found.front();
}

std::optional<DeviceRecord> PollStore::device(int64_t id) {
  std::lock_guard lock(mutex_);
  std::vector<DeviceRecord> found = queryDevices("d.id = ?", {id});
  if (found.empty()) return std::nullopt;
  return found.front();
}

std::vector<DeviceRecord> PollStore::devices(const std::optional<std::string>& appToken) {
  std::lock_guard lock(mutex_);
  if (appToken) return queryDevices("d.app_token = ?", {*appToken});
  return queryDevices("1", {});
}

bool PollStore::setUserInfo(int64_t deviceId, const std::string& userInfo) {
  std::lock_guard lock(mutex_);
  Statement s(
      db_, std::string("UPDATE devices SET user_info = ?, updated_at = ") + kNow + " WHERE id = ?");
  s.bind(userInfo).bind(deviceId);
  return s.step() == SQLITE_DONE && sqlite3_changes(db_) == 1;
}

void PollStore::touchDevice(int64_t deviceId) {
  std::lock_guard lock(mutex_);
  Statement s(db_, std::string("UPDATE devices SET last_seen_at = ") + kNow + " WHERE id = ?");
  s.bind(deviceId);
  s.step();
}

std::optional<PollRecord> PollStore::createPoll(const std::string& appToken,
                                                const std::string& question,
                                                const std::vector<PollOption>& options,
                                                const std::string& category) {
  std::lock_guard lock(mutex_);
  Transaction transaction(db_);
  if (!transaction.began()) return std::nullopt;
  Statement insert(db_, std::string("INSERT INTO polls (app_token, question, category, "
                                    "created_at) VALUES (?, ?, ?, ") +
                            kNow + ")");
  insert.bind(appToken).bind(question).bind(category);
  if (insert.step() != SQLITE_DONE) return std::nullopt;
  int64_t id = sqlite3_last_insert_rowid(db_);
  for (size_t i = 0; i < options.size(); ++i) {
    Statement option(
        db_, "INSERT INTO poll_options (poll_id, position, text, link) VALUES (?, ?, ?, ?)");
    option.bind(id).bind(static_cast<int64_t>(i)).bind(options[i].text).bind(options[i].link);
    if (option.step() != SQLITE_DONE) return std::nullopt;
  }
  if (!transaction.commit()) return std::nullopt;
  std::vector<PollRecord> found = queryPolls("p.id = ?", {id});
  if (found.empty()) return std::nullopt;
  return found.front();
}

bool PollStore::deletePoll(int64_t id) {
  std::lock_guard lock(mutex_);
  Transaction transaction(db_);
  if (!transaction.began()) return false;
  for (const char* sql :
       {"DELETE FROM replies WHERE poll_id = ?", "DELETE FROM poll_options WHERE poll_id = ?"}) {
    Statement s(db_, sql);
    s.bind(id);
    if (s.step() != SQLITE_DONE) return false;
  }
  Statement s(db_, "DELETE FROM polls WHERE id = ?");
  s.bind(id);
  if (s.step() != SQLITE_DONE || sqlite3_changes(db_) != 1) return false;
  return transaction.commit();
}

std::vector<std::pair<std::string, int64_t>> PollStore::replyCounts(int64_t pollId) {
  std::lock_guard lock(mutex_);
  std::vector<std::pair<std::string, int64_t>> counts;
  Statement s(db_,
              "SELECT reply_text, COUNT(*) AS n FROM replies WHERE poll_id = ? GROUP BY "
              "reply_text ORDER BY n DESC, MIN(id)");
  s.bind(pollId);
  while (s.step() == SQLITE_ROW) counts.emplace_back(s.text(0), s.integer(1));
  return counts;
}

std::optional<PollRecord> PollStore::poll(int64_t id) {
  std::lock_guard lock(mutex_);
  std::vector<PollRecord> found = queryPolls("p.id = ?", {id});
  if (found.empty()) return std::nullopt;
  return found.front();
}

std::vector<PollRecord> PollStore::polls(const std::optional<std::string>& appToken) {
  std::lock_guard lock(mutex_);
  if (appToken) return queryPolls("p.app_token = ?", {*appToken});
  return queryPolls("1", {});
}

std::vector<PollRecord> PollStore::pendingPolls(const std::string& appToken, int64_t deviceId) {
  std::lock_guard lock(mutex_);
  return queryPolls(
      "p.app_token = ? AND NOT EXISTS (SELECT 1 FROM replies r WHERE r.poll_id = p.id AND "
      "r.device_id = ?)",
      {appToken, deviceId});
}

std::optional<ReplyRecord> PollStore::addReply(int64_t pollId, int64_t deviceId,
                                               const std::string& replyText) {
  std::lock_guard lock(mutex_);
  Statement insert(db_, std::string("INSERT INTO replies (poll_id, device_id, reply_text, "
                                    "created_at) VALUES (?, ?, ?, ") +
                            kNow + ")");
  insert.bind(pollId).bind(deviceId).bind(replyText);
  if (insert.step() != SQLITE_DONE) return std::nullopt;
  std::vector<ReplyRecord> found = queryReplies("r.id = ?", {sqlite3_last_insert_rowid(db_)});
  if (found.empty()) return std::nullopt;
  return found.front();
}

std::vector<ReplyRecord> PollStore::replies(const std::optional<int64_t>& pollId,
                                            const std::optional<std::string>& appToken) {
  std::lock_guard lock(mutex_);
  std::string where = "1";
  std::vector<SqlArg> args;
  if (pollId) {
    where += " AND r.poll_id = ?";
    args.emplace_back(*pollId);
  }
  if (appToken) {
    where += " AND d.app_token = ?";
    args.emplace_back(*appToken);
  }
  return queryReplies(where, args);
}

std::vector<PollRecord> PollStore::queryPolls(const std::string& where,
                                              const std::vector<SqlArg>& args) {
  std::vector<PollRecord> polls;
  Statement s(db_,
              "SELECT p.id, p.app_token, p.question, p.created_at, (SELECT COUNT(*) FROM replies "
              "r WHERE r.poll_id = p.id), p.category FROM polls p WHERE " +
                  where + " ORDER BY p.id");
  bindAll(s, args);
  while (s.step() == SQLITE_ROW) {
    polls.push_back(
        PollRecord{s.integer(0), s.text(1), s.text(2), {}, s.text(3), s.integer(4), s.text(5)});
  }
  for (PollRecord& poll : polls) {
    Statement o(db_, "SELECT text, link FROM poll_options WHERE poll_id = ? ORDER BY position");
    o.bind(poll.id);
    while (o.step() == SQLITE_ROW) poll.options.push_back(PollOption{o.text(0), o.optionalText(1)});
  }
  return polls;
}

std::vector<DeviceRecord> PollStore::queryDevices(const std::string& where,
                                                  const std::vector<SqlArg>& args) {
  std::vector<DeviceRecord> devices;
  Statement s(db_, std::string("SELECT ") + kDeviceColumns + " FROM devices d WHERE " + where +
                       " ORDER BY d.id");
  bindAll(s, args);
  while (s.step() == SQLITE_ROW) devices.push_back(readDevice(s, 0));
  return devices;
}

std::vector<ReplyRecord> PollStore::queryReplies(const std::string& where,
                                                 const std::vector<SqlArg>& args) {
  std::vector<ReplyRecord> replies;
  Statement s(db_, std::string("SELECT r.id, r.poll_id, r.reply_text, r.created_at, ") +
                       kDeviceColumns +
                       " FROM replies r JOIN devices d ON d.id = r.device_id WHERE " + where +
                       " ORDER BY r.id");
  bindAll(s, args);
  while (s.step() == SQLITE_ROW) {
    replies.push_back(
        ReplyRecord{s.integer(0), s.integer(1), s.text(2), s.text(3), readDevice(s, 4)});
  }
  return replies;
}

}  // namespace quorvia::devserver
