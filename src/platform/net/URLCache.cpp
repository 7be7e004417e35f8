#include "platform/URLCache.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <list>
#include <mutex>
#include <string>
#include <unordered_map>

#include "platform/Device.h"
#include "platform/Log.h"

namespace quorvia::platform {
namespace {

constexpr std::uint64_t kDefaultMemoryCapacity = 4 * 1024 * 1024;
constexpr std::uint64_t kDefaultDiskCapacity = 20 * 1024 * 1024;

std::optional<std::string> cacheKey(const URLRequest& request) {
  if (!request.url) return std::nullopt;
  return request.url->absoluteString;
}

std::string encodeHeaders(const std::vector<HTTPHeader>& headers) {
  Value list = Value::array();
  for (const auto& [name, value] : headers) list.push_back(Value::array({name, value}));
  return list.dump(-1, ' ', false, Value::error_handler_t::replace);
}

std::vector<HTTPHeader> decodeHeaders(std::string_view text) {
  std::vector<HTTPHeader> headers;
  const auto list = parseJson(text);
  if (!list || !list->is_array()) return headers;
  for (const auto& pair : *list) {
    if (pair.is_array() && pair.size() == 2 && pair[0].is_string() && pair[1].is_string()) {
      headers.emplace_back(pair[0].get<std::string>(), pair[1].get<std::string>());
    }
  }
  return headers;
}

// Creates the store file 0600 before SQLite opens it (SQLite would create it
// with the umask's mode, and gives its journal files the main file's mode);
// one left from an older release with a looser mode is narrowed.
bool createPrivateFile(const std::filesystem::path& path, std::string* error) {
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) {
    *error = "cannot open " + path.string() + ": " + std::strerror(errno);
    return false;
  }
  struct stat st {};
  bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == ::geteuid();
  if (ok && (st.st_mode & 077) != 0) ok = ::fchmod(fd, 0600) == 0;
  ::close(fd);
  if (!ok) *error = path.string() + " is not a private file of this user";
  return ok;
}

// A prepared statement that finalises itself.
class Statement {
 public:
  Statement(sqlite3* db, const char* sql) { sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr); }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  sqlite3_stmt* get() const { return stmt_; }
  explicit operator bool() const { return stmt_ != nullptr; }

 private:
  sqlite3_stmt* stmt_ = nullptr;
};

}  // namespace

struct URLCache::State {
  struct Entry {
    std::string key;
    CachedURLResponse response;
    std::uint64_t cost = 0;
  };

  std::optional<std::filesystem::path> diskPath;
  mutable std::mutex mu;
  std::list<Entry> lru;  // most recently used first
  std::unordered_map<std::string, std::list<Entry>::iterator> index;
  std::uint64_t memoryUsage = 0;
  sqlite3* db = nullptr;
  bool diskTried = false;
  std::int64_t accessCounter = 0;

  ~State() {
    if (db) sqlite3_close(db);
  }

  void diskFailed(const std::string& what) {
    debugLog("QuorviaSDK: URL cache store " + diskPath->string() + " unavailable (" + what +
             "); answers are kept in memory only");
    if (db) sqlite3_close(db);
    db = nullptr;
  }

  sqlite3* disk() {
    if (diskTried) return db;
    diskTried = true;
    if (!diskPath) diskPath = dataDirectory() / "URLCache.sqlite";
    std::string error;
    if (!createPrivateDirectory(diskPath->parent_path(), &error)) {
      diskFailed(error);
      return nullptr;
    }
    if (!createPrivateFile(*diskPath, &error)) {
      diskFailed(error);
      return nullptr;
    }
    if (sqlite3_open_v2(diskPath->c_str(), &db,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                        nullptr) != SQLITE_OK) {
      diskFailed(db ? sqlite3_errmsg(db) : "cannot open");
      return nullptr;
    }
    sqlite3_busy_timeout(db, 1000);
    char* message = nullptr;
    const int rc = sqlite3_exec(db,
                                "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;"
                                "CREATE TABLE IF NOT EXISTS responses ("
                                " url TEXT PRIMARY KEY, status INTEGER NOT NULL,"
                                " response_url TEXT NOT NULL, headers TEXT NOT NULL,"
                                " data BLOB NOT NULL, size INTEGER NOT NULL,"
                                " accessed INTEGER NOT NULL);",
                                nullptr, nullptr, &message);
    if (rc != SQLITE_OK) {
      const std::string text = message ? message : sqlite3_errstr(rc);
      sqlite3_free(message);
      diskFailed(text);
      return nullptr;
    }
    Statement last(db, "SELECT COALESCE(MAX(accessed), 0) FROM responses");
    if (last && sqlite3_step(last.get()) == SQLITE_ROW) {
      accessCounter = sqlite3_column_int64(last.get(), 0);
    }
    return db;
  }

  void remember(const std::string& key, CachedURLResponse response, std::uint64_t capacity) {
    forget(key);
    const std::uint64_t cost = response.data.size() + key.size();
    if (cost > capacity) return;
    lru.push_front(Entry{key, std::move(response), cost});
    index[key] = lru.begin();
    memoryUsage += cost;
    while (memoryUsage > capacity && !lru.empty()) {
      memoryUsage -= lru.back().cost;
      index.erase(lru.back().key);
      lru.pop_back();
    }
  }

  void forget(const std::string& key) {
    const auto found = index.find(key);
    if (found == index.end()) return;
    memoryUsage -= found->second->cost;
    lru.erase(found->second);
    index.erase(found);
  }

  std::optional<CachedURLResponse> readDisk(const std::string& key) {
    sqlite3* handle = disk();
    if (!handle) return std::nullopt;
    Statement select(handle,
                     "SELECT status, response_url, headers, data FROM responses WHERE url = ?");
    if (!select) return std::nullopt;
    sqlite3_bind_text(select.get(), 1, key.data(), static_cast<int>(key.size()), SQLITE_TRANSIENT);
    if (sqlite3_step(select.get()) != SQLITE_ROW) return std::nullopt;
    CachedURLResponse cached;
    cached.response.statusCode = static_cast<long>(sqlite3_column_int64(select.get(), 0));
    if (const auto* url = sqlite3_column_text(select.get(), 1)) {
      cached.response.url = reinterpret_cast<const char*>(url);
    }
    if (const auto* headers = sqlite3_column_text(select.get(), 2)) {
      cached.response.allHeaderFields = decodeHeaders(reinterpret_cast<const char*>(headers));
    }
    const auto* data = static_cast<const std::uint8_t*>(sqlite3_column_blob(select.get(), 3));
    const int size = sqlite3_column_bytes(select.get(), 3);
    if (data && size > 0) cached.data.assign(data, data + size);
    // The blob is SQLite's until the statement moves on; the copy above is ours.
    Statement touch(handle, "UPDATE responses SET accessed = ? WHERE url = ?");
    if (touch) {
      sqlite3_bind_int64(touch.get(), 1, ++accessCounter);
      sqlite3_bind_text(touch.get(), 2, key.data(), static_cast<int>(key.size()), SQLITE_TRANSIENT);
      sqlite3_step(touch.get());
    }
    return cached;
  }

  void writeDisk(const std::string& key, const CachedURLResponse& response, std::uint64_t capacity) {
    sqlite3* handle = disk();
    if (!handle) return;
    const std::uint64_t size = response.data.size() + key.size();
    if (size > capacity) {
      Statement remove(handle, "DELETE FROM responses WHERE url = ?");
      if (remove) {
        sqlite3_bind_text(remove.get(), 1, key.data(), static_cast<int>(key.size()),
                          SQLITE_TRANSIENT);
        sqlite3_step(remove.get());
      }
      return;
    }
    Statement insert(handle,
                     "INSERT OR REPLACE INTO responses"
                     " (url, status, response_url, headers, data, size, accessed)"
                     " VALUES (?, ?, ?, ?, ?, ?, ?)");
    if (!insert) return;
    const std::string headers = encodeHeaders(response.response.allHeaderFields);
    sqlite3_bind_text(insert.get(), 1, key.data(), static_cast<int>(key.size()), SQLITE_TRANSIENT);
    sqlite3_bind_int64(insert.get(), 2, response.response.statusCode);
    sqlite3_bind_text(insert.get(), 3, response.response.url.data(),
                      static_cast<int>(response.response.url.size()), SQLITE_TRANSIENT);
    sqlite3_bind_text(insert.get(), 4, headers.data(), static_cast<int>(headers.size()),
                      SQLITE_TRANSIENT);
    static const std::uint8_t kNoBytes = 0;  // an empty blob, not NULL
    // The body outlives the statement: SQLite reads it in place, no copy.
    sqlite3_bind_blob64(insert.get(), 5, response.data.empty() ? &kNoBytes : response.data.data(),
                        response.data.size(), SQLITE_STATIC);
    sqlite3_bind_int64(insert.get(), 6, static_cast<sqlite3_int64>(size));
    sqlite3_bind_int64(insert.get(), 7, ++accessCounter);
    if (sqlite3_step(insert.get()) != SQLITE_DONE) {
      debugLog(std::string("QuorviaSDK: URL cache store write failed: ") + sqlite3_errmsg(handle));
      return;
    }
    // Oldest-used answers leave the store until it fits its capacity again.
    Statement total(handle, "SELECT COALESCE(SUM(size), 0) FROM responses");
    if (!total || sqlite3_step(total.get()) != SQLITE_ROW) return;
    auto used = static_cast<std::uint64_t>(sqlite3_column_int64(total.get(), 0));
    if (used <= capacity) return;
    Statement oldest(handle, "SELECT url, size FROM responses ORDER BY accessed ASC");
    Statement remove(handle, "DELETE FROM responses WHERE url = ?");
    if (!oldest || !remove) return;
    while (used > capacity && sqlite3_step(oldest.get()) == SQLITE_ROW) {
      const auto* url = sqlite3_column_text(oldest.get(), 0);
      const int urlSize = sqlite3_column_bytes(oldest.get(), 0);
      sqlite3_reset(remove.get());
      sqlite3_bind_text(remove.get(), 1, reinterpret_cast<const char*>(url), urlSize,
                        SQLITE_TRANSIENT);
      sqlite3_step(remove.get());
      used -= static_cast<std::uint64_t>(sqlite3_column_int64(oldest.get(), 1));
    }
  }
};

URLCache::URLCache(std::uint64_t memoryCapacity, std::uint64_t diskCapacity,
                   std::optional<std::filesystem::path> diskPath)
    : memoryCapacity_(memoryCapacity), diskCapacity_(diskCapacity), state_(std::make_unique<State>()) {
  state_->diskPath = std::move(diskPath);
}

URLCache::~URLCache() = default;

namespace {
// Never destroyed: the transport thread and exit-time observers may still
// reach the shared cache while the process ends.
std::mutex& sharedCacheMutex() {
  static auto* const mu = new std::mutex;
  return *mu;
}
std::shared_ptr<URLCache>& sharedCache() {
  static auto* const cache = new std::shared_ptr<URLCache>;
  return *cache;
}
}  // namespace

std::shared_ptr<URLCache> URLCache::sharedURLCache() {
  std::lock_guard lock(sharedCacheMutex());
  auto& cache = sharedCache();
  if (!cache) cache = std::make_shared<URLCache>(kDefaultMemoryCapacity, kDefaultDiskCapacity, std::nullopt);
  return cache;
}

void URLCache::setSharedURLCache(std::shared_ptr<URLCache> cache) {
  std::lock_guard lock(sharedCacheMutex());
  sharedCache() = std::move(cache);
}

std::uint64_t URLCache::currentMemoryUsage() const {
  std::lock_guard lock(state_->mu);
  return state_->memoryUsage;
}

std::optional<CachedURLResponse> URLCache::cachedResponseForRequest(const URLRequest& request) {
  const auto key = cacheKey(request);
  if (!key) return std::nullopt;
  std::lock_guard lock(state_->mu);
  const auto found = state_->index.find(*key);
  if (found != state_->index.end()) {
    state_->lru.splice(state_->lru.begin(), state_->lru, found->second);
    return found->second->response;
  }
  auto cached = state_->readDisk(*key);
  if (cached) state_->remember(*key, *cached, memoryCapacity_);
  return cached;
}

void URLCache::storeCachedResponse(const CachedURLResponse& response, const URLRequest& request) {
  storeCachedResponse(CachedURLResponse(response), request);
}

void URLCache::storeCachedResponse(CachedURLResponse&& response, const URLRequest& request) {
  const auto key = cacheKey(request);
  if (!key || response.storagePolicy == URLCacheStoragePolicy::kNotAllowed) return;
  std::lock_guard lock(state_->mu);
  if (response.storagePolicy == URLCacheStoragePolicy::kAllowed) {
    state_->writeDisk(*key, response, diskCapacity_);
  }
  state_->remember(*key, std::move(response), memoryCapacity_);
}

}  // namespace quorvia::platform
