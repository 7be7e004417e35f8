// Reading the access token and saving it durably through the keychain layer,
// beside a raw SQLite point read of the same row, in one run.
//
// fsync and fdatasync are interposed for the whole process, so the durable
// save reports how many times SQLite really synced the disk per save.

#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <atomic>
#include <filesystem>
#include <string>

#include "platform/ConfigurableEnvironment.h"
#include "keychain/LKKeychain.h"
#include "platform/KeychainStore.h"

namespace {

std::atomic<long> gSyncs{0};

template <typename Fn>
Fn nextSymbol(const char* name) {
  return reinterpret_cast<Fn>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int fsync(int fd) {
  static auto real = nextSymbol<int (*)(int)>("fsync");
  gSyncs.fetch_add(1, std::memory_order_relaxed);
  return real(fd);
}

extern "C" __attribute__((visibility("default"))) int fdatasync(int fd) {
  static auto real = nextSymbol<int (*)(int)>("fdatasync");
  gSyncs.fetch_add(1, std::memory_order_relaxed);
  return real(fd);
}

namespace {

using quorvia::LKKeychain;

// One data directory for the run, holding the token item.
const std::filesystem::path& storeDirectory() {
  static const std::filesystem::path dir = [] {
    std::string pattern = (std::filesystem::temp_directory_path() / "quorvia-bench-XXXXXX");
    if (!::mkdtemp(pattern.data())) std::abort();
    std::filesystem::path data = std::filesystem::path(pattern) / "data";
    quorvia::platform::ConfigurableEnvironment::install(data,
                                                        quorvia::platform::RunLoop::Clock::kReal);
    if (!LKKeychain::setPassword("eyJhbGciOiJIUzI1NiJ9.token", "polls", "user_token")) {
      std::abort();
    }
    return data;
  }();
  return dir;
}

void BM_PasswordForService(benchmark::State& state) {
  storeDirectory();
  for (auto _ : state) {
    auto password = LKKeychain::passwordForService("polls", "user_token");
    benchmark::DoNotOptimize(password);
  }
}
BENCHMARK(BM_PasswordForService)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_RawSQLitePointRead(benchmark::State& state) {
  const auto file = storeDirectory() / quorvia::platform::kKeychainStoreFileName;
  sqlite3* db = nullptr;
  sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
  sqlite3_stmt* read = nullptr;
  sqlite3_prepare_v2(db,
                     "SELECT data FROM items WHERE svce = ?1 AND acct = ?2 AND agrp = '' AND "
                     "sync = 0",
                     -1, &read, nullptr);
  for (auto _ : state) {
    sqlite3_bind_text(read, 1, "polls", 5, SQLITE_STATIC);
    sqlite3_bind_text(read, 2, "user_token", 10, SQLITE_STATIC);
    if (sqlite3_step(read) != SQLITE_ROW) state.SkipWithError("row missing");
    const auto* blob = static_cast<const char*>(sqlite3_column_blob(read, 0));
    std::string password(blob, static_cast<std::size_t>(sqlite3_column_bytes(read, 0)));
    benchmark::DoNotOptimize(password);
    sqlite3_reset(read);
  }
  sqlite3_finalize(read);
  sqlite3_close(db);
}
BENCHMARK(BM_RawSQLitePointRead)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_DurableSave(benchmark::State& state) {
  storeDirectory();
  const long before = gSyncs.load();
  long saves = 0;
  for (auto _ : state) {
    const bool ok =
        LKKeychain::setPassword(saves % 2 ? "token-a" : "token-b", "polls", "user_token");
    if (!ok) state.SkipWithError("save failed");
    ++saves;
  }
  state.counters["fsyncs_per_save"] =
      benchmark::Counter(static_cast<double>(gSyncs.load() - before) / static_cast<double>(saves));
}
BENCHMARK(BM_DurableSave)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
