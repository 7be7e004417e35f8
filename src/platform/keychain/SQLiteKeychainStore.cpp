// The durable keychain store: one SQLite file in the app's data directory.

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/keychain/KeychainItem.h"
#include "platform/Device.h"
#include "platform/KeychainStore.h"
#include "platform/Log.h"

namespace quorvia::platform {
namespace {

using keychain::Item;
using keychain::Search;

// Writers wait this long for another process's transaction before giving up.
constexpr int kBusyTimeoutMs = 5000;

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS items("
    " id INTEGER PRIMARY KEY,"
    " svce TEXT NOT NULL, acct TEXT NOT NULL, agrp TEXT NOT NULL, sync INTEGER NOT NULL,"
    " labl TEXT, desc TEXT, pdmn TEXT NOT NULL,"
    " cdat REAL NOT NULL, mdat REAL NOT NULL, data BLOB NOT NULL,"
    " UNIQUE(svce, acct, agrp, sync))";

constexpr const char* kColumns =
    "SELECT id, svce, acct, agrp, sync, labl, desc, pdmn, cdat, mdat, data FROM items";

// A prepared statement, reset after each use.
class Statement final {
 public:
  Statement() = default;
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  ~Statement() { sqlite3_finalize(stmt_); }

  int prepare(sqlite3* db, const std::string& sql) {
    return sqlite3_prepare_v3(db, sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &stmt_, nullptr);
  }
  sqlite3_stmt* get() const { return stmt_; }
  void finalize() {
    sqlite3_finalize(stmt_);
    stmt_ = nullptr;
  }

 private:
  sqlite3_stmt* stmt_ = nullptr;
};

// Resets a statement and clears its bindings when the scope ends.
class Use final {
 public:
  explicit Use(const Statement& s) : stmt_(s.get()) {}
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;
  ~Use() {
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
  }
  sqlite3_stmt* operator*() const { return stmt_; }

 private:
  sqlite3_stmt* stmt_;
};

void bindText(sqlite3_stmt* s, int i, const std::string& text) {
  sqlite3_bind_text(s, i, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

void bindOptionalText(sqlite3_stmt* s, int i, const std::optional<std::string>& text) {
  if (text) {
    bindText(s, i, *text);
  } else {
    sqlite3_bind_null(s, i);
  }
}

void bindBytes(sqlite3_stmt* s, int i, const Bytes& data) {
  // A zero-length blob needs a non-null pointer, or SQLite stores NULL.
  static const std::uint8_t kEmpty = 0;
  sqlite3_bind_blob(s, i, data.empty() ? &kEmpty : data.data(), static_cast<int>(data.size()),
                    SQLITE_TRANSIENT);
}

std::string columnText(sqlite3_stmt* s, int i) {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(s, i));
  return text ? std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(s, i)))
              : std::string();
}

std::optional<std::string> columnOptionalText(sqlite3_stmt* s, int i) {
  if (sqlite3_column_type(s, i) == SQLITE_NULL) return std::nullopt;
  return columnText(s, i);
}

Item rowItem(sqlite3_stmt* s) {
  Item item;
  item.service = columnText(s, 1);
  item.account = columnText(s, 2);
  item.accessGroup = columnText(s, 3);
  item.synchronizable = sqlite3_column_int(s, 4) != 0;
  item.label = columnOptionalText(s, 5);
  item.description = columnOptionalText(s, 6);
  item.accessible = columnText(s, 7);
  item.created = sqlite3_column_double(s, 8);
  item.modified = sqlite3_column_double(s, 9);
  const auto* blob = static_cast<const std::uint8_t*>(sqlite3_column_blob(s, 10));
  item.data.assign(blob, blob + sqlite3_column_bytes(s, 10));
  return item;
}

OSStatus statusOfSqlite(int rc) {
  switch (rc & 0xff) {
    case SQLITE_OK:
    case SQLITE_DONE:
    case SQLITE_ROW: return errSecSuccess;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_SCHEMA:
    case SQLITE_FORMAT: return errSecDecode;
    case SQLITE_NOMEM: return errSecAllocate;
    case SQLITE_CONSTRAINT: return errSecDuplicateItem;
    default: return errSecNotAvailable;
  }
}

std::string octalMode(mode_t mode) {
  char text[8];
  std::snprintf(text, sizeof text, "0%03o", static_cast<unsigned>(mode & 0777));
  return text;
}

class SQLiteKeychainStore final : public KeychainStore {
 public:
  explicit SQLiteKeychainStore(std::filesystem::path directory)
      : directory_(std::move(directory)), path_(directory_ / kKeychainStoreFileName) {}

  ~SQLiteKeychainStore() override { close(); }

  OSStatus add(const Value& attributes, Value* result) override {
    Item item;
    Search returned;
    if (OSStatus s = keychain::parseNewItem(attributes, keychain::now(), &item, &returned)) {
      return s;
    }
    std::lock_guard lock(mu_);
    if (OSStatus s = open()) return s;
    // One statement in autocommit mode: atomic and synchronously committed.
    Use use(insert_);
    bindItem(*use, item);
    const int rc = sqlite3_step(*use);
    if (rc != SQLITE_DONE) {
      if ((rc & 0xff) == SQLITE_CONSTRAINT) return errSecDuplicateItem;
      return failure("add", rc);
    }
    if (result && (returned.returnData || returned.returnAttributes)) {
      *result = keychain::resultOf(returned, {&item});
    }
    return errSecSuccess;
  }

  OSStatus update(const Value& query, const Value& attributesToUpdate) override {
    Search search;
    keychain::Changes changes;
    if (OSStatus s = keychain::parseSearch(query, &search)) return s;
    if (OSStatus s = keychain::parseChanges(attributesToUpdate, &changes)) return s;
    std::lock_guard lock(mu_);
    if (OSStatus s = open()) return s;
    return inWriteTransaction("update", [&]() -> int {
      std::vector<std::pair<sqlite3_int64, Item>> rows;
      if (int rc = select(search, &rows); rc != SQLITE_OK) return rc;
      if (rows.empty()) return kNothingMatched;
      const double at = keychain::now();
      for (auto& [id, item] : rows) {
        changes.applyTo(&item, at);
        Use use(updateRow_);
        bindItem(*use, item);
        sqlite3_bind_int64(*use, 11, id);
        if (int rc = sqlite3_step(*use); rc != SQLITE_DONE) return rc;
      }
      return SQLITE_OK;
    });
  }

  OSStatus remove(const Value& query) override {
    Search search;
    if (OSStatus s = keychain::parseSearch(query, &search)) return s;
    std::lock_guard lock(mu_);
    if (OSStatus s = open()) return s;
    return inWriteTransaction("delete", [&]() -> int {
      std::vector<std::pair<sqlite3_int64, Item>> rows;
      if (int rc = select(search, &rows); rc != SQLITE_OK) return rc;
      if (rows.empty()) return kNothingMatched;
      for (const auto& row : rows) {
        Use use(deleteRow_);
        sqlite3_bind_int64(*use, 1, row.first);
        if (int rc = sqlite3_step(*use); rc != SQLITE_DONE) return rc;
      }
      return SQLITE_OK;
    });
  }

  OSStatus copyMatching(const Value& query, Value* result) override {
    Search search;
    if (OSStatus s = keychain::parseSearch(query, &search)) return s;
    std::lock_guard lock(mu_);
    if (OSStatus s = open()) return s;
    std::vector<std::pair<sqlite3_int64, Item>> rows;
    if (int rc = select(search, &rows); rc != SQLITE_OK) return failure("search", rc);
    if (rows.empty()) return errSecItemNotFound;
    if (result && (search.returnData || search.returnAttributes)) {
      std::vector<const Item*> found;
      found.reserve(rows.size());
      for (const auto& row : rows) found.push_back(&row.second);
      *result = keychain::resultOf(search, found);
    }
    return errSecSuccess;
  }

 private:
  // Returned by a transaction body when no item matched.
  static constexpr int kNothingMatched = -1;

  // Opens the file when it is not open yet; refuses one that others may read.
  OSStatus open() {
    if (db_) return errSecSuccess;
    std::string why;
    if (!createPrivateDirectory(directory_, &why)) {
      NSLog("QuorviaSDK: keychain store directory " + directory_.string() +
            " cannot be created: " + why);
      return errSecNotAvailable;
    }
    // Created here, with its final mode, so that no other user ever sees it.
    const int fd = ::open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd >= 0) {
      ::close(fd);
    } else if (errno != EEXIST) {
      NSLog("QuorviaSDK: keychain store " + path_.string() +
            " cannot be created: " + std::strerror(errno));
      return errSecNotAvailable;
    }
    struct stat st {};
    if (::lstat(path_.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
      NSLog("QuorviaSDK: keychain store " + path_.string() + " is not a regular file; refused");
      return errSecNotAvailable;
    }
    if ((st.st_mode & 077) != 0) {
      NSLog("QuorviaSDK: keychain store " + path_.string() + " has mode " +
            octalMode(st.st_mode) + ", open to group or others; refused until it is 0600");
      return errSecNotAvailable;
    }
    // No SQLITE_OPEN_CREATE: a file that vanished is not silently replaced.
    int rc = sqlite3_open_v2(path_.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX,
                             nullptr);
    if (rc == SQLITE_OK) {
      sqlite3_extended_result_codes(db_, 1);
      sqlite3_busy_timeout(db_, kBusyTimeoutMs);
      rc = sqlite3_exec(db_,
                        "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;"
                        " PRAGMA secure_delete=ON;",
                        nullptr, nullptr, nullptr);
    }
    // A damaged page that the lookups would never reach still makes the whole
    // file suspect: refuse it once here rather than answer "not found" later.
    if (rc == SQLITE_OK) rc = quickCheck();
    if (rc == SQLITE_OK) rc = sqlite3_exec(db_, kSchema, nullptr, nullptr, nullptr);
    if (rc == SQLITE_OK) rc = prepareStatements();
    if (rc != SQLITE_OK) {
      const OSStatus status = failure("open", rc);
      close();
      return status;
    }
    return errSecSuccess;
  }

  int quickCheck() {
    Statement check;
    int rc = check.prepare(db_, "PRAGMA quick_check(1)");
    if (rc != SQLITE_OK) return rc;
    rc = sqlite3_step(check.get());
    if (rc != SQLITE_ROW) return rc;
    const auto* verdict = reinterpret_cast<const char*>(sqlite3_column_text(check.get(), 0));
    return verdict && std::strcmp(verdict, "ok") == 0 ? SQLITE_OK : SQLITE_CORRUPT;
  }

  int prepareStatements() {
    const std::string columns = kColumns;
    const std::pair<Statement*, std::string> all[] = {
        {&selectByServiceAccount_, columns + " WHERE svce = ?1 AND acct = ?2"},
        {&selectByService_, columns + " WHERE svce = ?1"},
        {&selectAll_, columns},
        {&insert_,
         "INSERT INTO items(svce, acct, agrp, sync, labl, desc, pdmn, cdat, mdat, data)"
         " VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10)"},
        {&updateRow_,
         "UPDATE items SET labl = ?5, desc = ?6, pdmn = ?7, mdat = ?9, data = ?10"
         " WHERE id = ?11"},
        {&deleteRow_, "DELETE FROM items WHERE id = ?1"},
        {&begin_, "BEGIN IMMEDIATE"},
        {&commit_, "COMMIT"},
        {&rollback_, "ROLLBACK"},
    };
    for (const auto& [statement, sql] : all) {
      if (int rc = statement->prepare(db_, sql); rc != SQLITE_OK) return rc;
    }
    return SQLITE_OK;
  }

  void close() {
    for (Statement* s : {&selectByServiceAccount_, &selectByService_, &selectAll_, &insert_,
                         &updateRow_, &deleteRow_, &begin_, &commit_, &rollback_}) {
      s->finalize();
    }
    sqlite3_close_v2(db_);
    db_ = nullptr;
  }

  // Binds ?1..?10 of insert_ and updateRow_ (the update ignores the identity).
  static void bindItem(sqlite3_stmt* s, const Item& item) {
    bindText(s, 1, item.service);
    bindText(s, 2, item.account);
    bindText(s, 3, item.accessGroup);
    sqlite3_bind_int(s, 4, item.synchronizable ? 1 : 0);
    bindOptionalText(s, 5, item.label);
    bindOptionalText(s, 6, item.description);
    bindText(s, 7, item.accessible);
    sqlite3_bind_double(s, 8, item.created);
    sqlite3_bind_double(s, 9, item.modified);
    bindBytes(s, 10, item.data);
  }

  // The rows `search` matches, narrowed by the service and account columns.
  int select(const Search& search, std::vector<std::pair<sqlite3_int64, Item>>* rows) {
    const Statement& statement = search.service && search.account ? selectByServiceAccount_
                                 : search.service                  ? selectByService_
                                                                   : selectAll_;
    Use use(statement);
    if (search.service) bindText(*use, 1, *search.service);
    if (search.service && search.account) bindText(*use, 2, *search.account);
    int rc;
    while ((rc = sqlite3_step(*use)) == SQLITE_ROW) {
      Item item = rowItem(*use);
      if (!search.matches(item)) continue;
      rows->emplace_back(sqlite3_column_int64(*use, 0), std::move(item));
      if (!search.limitAll && (search.returnData || search.returnAttributes)) break;
    }
    return rc == SQLITE_DONE || rc == SQLITE_ROW ? SQLITE_OK : rc;
  }

  // Runs `body` in one immediate transaction, committed synchronously; any
  // failure rolls the whole of it back.
  template <typename Body>
  OSStatus inWriteTransaction(const char* what, Body&& body) {
    int rc;
    {
      Use use(begin_);
      rc = sqlite3_step(*use);
    }
    if (rc != SQLITE_DONE) return failure(what, rc);
    rc = body();
    if (rc == SQLITE_OK) {
      Use use(commit_);
      rc = sqlite3_step(*use);
      if (rc == SQLITE_DONE) return errSecSuccess;
    }
    if (sqlite3_get_autocommit(db_) == 0) {
      Use use(rollback_);
      sqlite3_step(*use);
    }
    if (rc == kNothingMatched) return errSecItemNotFound;
    return failure(what, rc);
  }

  // Logs a failed SQLite call (never a value, only what failed) and maps it.
  OSStatus failure(const char* what, int rc) {
    const OSStatus status = statusOfSqlite(rc);
    NSLog("QuorviaSDK: keychain store " + path_.string() + " " + what + " failed: " +
          sqlite3_errstr(rc) + " (SQLite " + std::to_string(rc) + ", status " +
          std::to_string(status) + ")");
    return status;
  }

  const std::filesystem::path directory_;
  const std::filesystem::path path_;
  std::mutex mu_;
  sqlite3* db_ = nullptr;
  Statement selectByServiceAccount_, selectByService_, selectAll_, insert_, updateRow_,
      deleteRow_, begin_, commit_, rollback_;
};

}  // namespace

std::shared_ptr<KeychainStore> makeSQLiteKeychainStore(const std::filesystem::path& directory) {
  return std::make_shared<SQLiteKeychainStore>(directory);
}

}  // namespace quorvia::platform
