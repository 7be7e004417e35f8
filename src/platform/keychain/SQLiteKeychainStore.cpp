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

// Every committed write is in the main file before the call returns (a
// rollback journal, synchronously), and no deleted secret stays anywhere:
// freed pages are zeroed, and the journal is removed after each transaction.
constexpr const char* kPragmas =
    "PRAGMA journal_mode=DELETE; PRAGMA synchronous=FULL; PRAGMA secure_delete=ON;";

// Files SQLite may keep beside the store.
constexpr const char* kSidecars[] = {"-journal", "-wal", "-shm"};

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

  // Opens the store when it is not open yet. Refuses, with a log line and
  // without touching anything, a store that others could read or have
  // prepared, and one that is damaged: a refused store keeps its evidence.
  OSStatus open() {
    if (db_) return errSecSuccess;
    std::string why;
    if (!createPrivateDirectory(directory_, &why)) {
      debugLog("QuorviaSDK: keychain store directory " + directory_.string() +
               " cannot be created: " + why);
      return errSecNotAvailable;
    }
    if (OSStatus s = checkPrivate(directory_, /*directory=*/true)) return s;
    for (const char* side : kSidecars) {
      if (OSStatus s = checkPrivate(path_.string() + side, /*directory=*/false)) return s;
    }
    if (OSStatus s = checkJournals()) return s;
    struct stat st {};
    if (::lstat(path_.c_str(), &st) != 0) {
      if (errno != ENOENT) {
        debugLog("QuorviaSDK: keychain store " + path_.string() +
                 " cannot be read: " + std::strerror(errno));
        return errSecNotAvailable;
      }
      if (OSStatus s = createStore()) return s;
    }
    if (OSStatus s = checkPrivate(path_, /*directory=*/false)) return s;
    // No SQLITE_OPEN_CREATE: a file that vanished is not silently replaced.
    int rc = sqlite3_open_v2(path_.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX,
                             nullptr);
    if (rc == SQLITE_OK) {
      sqlite3_extended_result_codes(db_, 1);
      sqlite3_busy_timeout(db_, kBusyTimeoutMs);
      rc = sqlite3_exec(db_, kPragmas, nullptr, nullptr, nullptr);
    }
    // A store left in write-ahead-log mode by an older release is moved back
    // to the rollback journal here (its log is checkpointed first).
    if (rc == SQLITE_OK) rc = useRollbackJournal();
    // A damaged page that the lookups would never reach still makes the whole
    // file suspect: refuse it once here rather than answer "not found" later.
    if (rc == SQLITE_OK) rc = quickCheck();
    // A store always holds its table from the moment it exists; one without
    // it lost its contents (an emptied file, a log that never reached it), and
    // making a fresh table would hide that.
    if (rc == SQLITE_OK) rc = hasItemsTable();
    if (rc == SQLITE_OK) rc = prepareStatements();
    if (rc != SQLITE_OK) {
      const OSStatus status = failure("open", rc);
      close();
      return status;
    }
    return errSecSuccess;
  }

  // The owner and mode of the directory or of one file of the store (absent
  // files pass): another user's file, or one that others may read or write,
  // could hand out or receive the secrets.
  OSStatus checkPrivate(const std::filesystem::path& path, bool directory) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) {
      if (errno == ENOENT && !directory) return errSecSuccess;
      debugLog("QuorviaSDK: keychain store " + path.string() +
               " cannot be checked: " + std::strerror(errno) + "; refused");
      return errSecNotAvailable;
    }
    // "keychain store directory <path>" or, for a file, "keychain store <path>".
    const std::string what = (directory ? "keychain store directory " : "keychain store ") +
                             path.string();
    if (directory ? !S_ISDIR(st.st_mode) : !S_ISREG(st.st_mode)) {
      debugLog("QuorviaSDK: " + what +
               (directory ? " is not a directory" : " is not a regular file") + "; refused");
      return errSecNotAvailable;
    }
    if (st.st_uid != ::geteuid()) {
      debugLog("QuorviaSDK: " + what + " belongs to user " + std::to_string(st.st_uid) +
               ", not to this one; refused");
      return errSecNotAvailable;
    }
    // The directory may be listed by others, never written: whoever can write
    // it can swap the files in it.
    const mode_t loose = directory ? 022 : 077;
    if ((st.st_mode & loose) != 0) {
      debugLog("QuorviaSDK: " + what + " has mode " + octalMode(st.st_mode) +
               (directory ? ", writable by group or others; refused until it is 0700"
                          : ", open to group or others; refused until it is 0600"));
      return errSecNotAvailable;
    }
    return errSecSuccess;
  }

  // A journal that SQLite would not recognise is skipped or thrown away on
  // open, and with it the writes it holds: refuse it instead.
  OSStatus checkJournals() {
    static constexpr unsigned char kJournalMagic[] = {0xd9, 0xd5, 0x05, 0xf9,
                                                      0x20, 0xa1, 0x63, 0xd7};
    static constexpr unsigned char kZeroes[8] = {};
    static constexpr unsigned char kWalMagic[][4] = {{0x37, 0x7f, 0x06, 0x82},
                                                     {0x37, 0x7f, 0x06, 0x83}};
    const auto header = [](const std::string& file, unsigned char* out, std::size_t size) {
      const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
      if (fd < 0) return -1L;
      const ssize_t n = ::read(fd, out, size);
      ::close(fd);
      return static_cast<long>(n);
    };
    unsigned char bytes[8] = {};
    const std::string journal = path_.string() + "-journal";
    const long journalRead = header(journal, bytes, sizeof bytes);
    if (journalRead > 0 && (journalRead < 8 || (std::memcmp(bytes, kJournalMagic, 8) != 0 &&
                                                std::memcmp(bytes, kZeroes, 8) != 0))) {
      debugLog("QuorviaSDK: keychain store journal " + journal +
               " is damaged; store refused and left untouched");
      return errSecDecode;
    }
    const std::string wal = path_.string() + "-wal";
    const long walRead = header(wal, bytes, 4);
    if (walRead > 0 && (walRead < 4 || (std::memcmp(bytes, kWalMagic[0], 4) != 0 &&
                                        std::memcmp(bytes, kWalMagic[1], 4) != 0))) {
      debugLog("QuorviaSDK: keychain store log " + wal +
               " is damaged; store refused and left untouched");
      return errSecDecode;
    }
    return errSecSuccess;
  }

  // Makes a new store beside the final name, table included, and links it
  // into place only when complete: a store file without its table is then
  // always a damaged one. Losing the race to another process is fine.
  OSStatus createStore() {
    const std::filesystem::path fresh = path_.string() + ".new-" + std::to_string(::getpid());
    ::unlink(fresh.c_str());
    const int fd = ::open(fresh.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
      debugLog("QuorviaSDK: keychain store " + path_.string() +
               " cannot be created: " + std::strerror(errno));
      return errSecNotAvailable;
    }
    ::close(fd);
    sqlite3* db = nullptr;
    int rc =
        sqlite3_open_v2(fresh.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc == SQLITE_OK) rc = sqlite3_exec(db, kPragmas, nullptr, nullptr, nullptr);
    if (rc == SQLITE_OK) rc = sqlite3_exec(db, kSchema, nullptr, nullptr, nullptr);
    sqlite3_close_v2(db);
    OSStatus status = errSecSuccess;
    if (rc != SQLITE_OK) {
      status = failure("create", rc);
    } else if (!publish(fresh) && errno != EEXIST) {
      debugLog("QuorviaSDK: keychain store " + path_.string() +
               " cannot be created: " + std::strerror(errno));
      status = errSecNotAvailable;
    } else {
      syncDirectory();
    }
    ::unlink(fresh.c_str());
    return status;
  }

  // Puts the finished store in place unless one is there already.
  bool publish(const std::filesystem::path& fresh) {
    if (::link(fresh.c_str(), path_.c_str()) == 0) return true;
    // Some file systems have no hard links; a rename that refuses to replace
    // does the same job there.
    if (errno != EPERM && errno != EOPNOTSUPP) return false;
    return ::renameat2(AT_FDCWD, fresh.c_str(), AT_FDCWD, path_.c_str(), RENAME_NOREPLACE) == 0;
  }

  void syncDirectory() {
    const int fd = ::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
  }

  int useRollbackJournal() {
    Statement mode;
    int rc = mode.prepare(db_, "PRAGMA journal_mode=DELETE");
    if (rc != SQLITE_OK) return rc;
    rc = sqlite3_step(mode.get());
    if (rc != SQLITE_ROW) return rc;
    const auto* now = reinterpret_cast<const char*>(sqlite3_column_text(mode.get(), 0));
    // Still in the log's mode: another process holds the store open.
    return now && std::strcmp(now, "delete") == 0 ? SQLITE_OK : SQLITE_BUSY;
  }

  int hasItemsTable() {
    Statement table;
    int rc = table.prepare(
        db_, "SELECT count(*) FROM sqlite_master WHERE type = 'table' AND name = 'items'");
    if (rc != SQLITE_OK) return rc;
    rc = sqlite3_step(table.get());
    if (rc != SQLITE_ROW) return rc;
    if (sqlite3_column_int(table.get(), 0) == 1) return SQLITE_OK;
    debugLog("QuorviaSDK: keychain store " + path_.string() +
             " has no items table: its contents were lost or never reached it; refused and left"
             " untouched");
    return SQLITE_CORRUPT;
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
    // Plain pointers, joined one at a time below: a table of std::string
    // built from concatenations set off GCC 12's false -Warray-bounds at -O2.
    struct Sql {
      Statement* statement;
      const char* head;
      const char* tail;
    };
    const Sql all[] = {
        {&selectByServiceAccount_, kColumns, " WHERE svce = ?1 AND acct = ?2"},
        {&selectByService_, kColumns, " WHERE svce = ?1"},
        {&selectAll_, kColumns, ""},
        {&insert_,
         "INSERT INTO items(svce, acct, agrp, sync, labl, desc, pdmn, cdat, mdat, data)"
         " VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10)",
         ""},
        {&updateRow_,
         "UPDATE items SET labl = ?5, desc = ?6, pdmn = ?7, mdat = ?9, data = ?10"
         " WHERE id = ?11",
         ""},
        {&deleteRow_, "DELETE FROM items WHERE id = ?1", ""},
        {&begin_, "BEGIN IMMEDIATE", ""},
        {&commit_, "COMMIT", ""},
        {&rollback_, "ROLLBACK", ""},
    };
    std::string sql;
    for (const Sql& each : all) {
      sql.assign(each.head).append(each.tail);
      if (int rc = each.statement->prepare(db_, sql); rc != SQLITE_OK) return rc;
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
    debugLog("QuorviaSDK: keychain store " + path_.string() + " " + what +
             " failed: " + sqlite3_errstr(rc) + " (SQLite " + std::to_string(rc) + ", status " +
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
