// Reading the access token and saving it durably through the keychain layer,
// beside a raw SQLite point read of the same row, in one run; and reading it
// from the desktop's keyring (a real gnome-keyring-daemon on a private bus,
// started here) beside a raw libsecret lookup of the same item.
//
// fsync and fdatasync are interposed for the whole process, so the durable
// save reports how many times SQLite really synced the disk per save.

#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <libsecret/secret.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "keychain/LKKeychain.h"
#include "platform/ConfigurableEnvironment.h"
#include "platform/KeychainStore.h"
#include "platform/keychain/SecretServiceKeychainStore.h"
#include "support/KeyringDaemon.h"

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

// The keyring's item as libsecret's own lookup finds it: the SDK's schema,
// the attributes the store searches by.
const SecretSchema kKeyringSchema = {quorvia::platform::kSecretServiceSchemaName,
                                     SECRET_SCHEMA_NONE,
                                     {{"app", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                      {"class", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                      {"svce", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                      {"acct", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                      {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}}};

// The SDK's read (passwordForService through the keyring store, with its
// documented limits) and a raw libsecret lookup on the caller's thread, one
// each in turn so that both see the same keyring and load.
void BM_KeyringReadSideBySide(benchmark::State& state) {
  const std::filesystem::path keyringDirectory = storeDirectory().parent_path() / "keyring";
  quorvia::testing::KeyringDaemon keyring(keyringDirectory);
  if (!keyring.ready) {
    state.SkipWithError("gnome-keyring-daemon did not start");
    return;
  }
  ::setenv("DBUS_SESSION_BUS_ADDRESS", keyring.bus.address.c_str(), 1);
  auto env = quorvia::platform::ConfigurableEnvironment::install(
      storeDirectory(), quorvia::platform::RunLoop::Clock::kReal);
  env->setKeychainStore(quorvia::platform::makeSecretServiceKeychainStore("quorvia-bench"));
  GError* error = nullptr;
  SecretService* service = secret_service_open_sync(SECRET_TYPE_SERVICE, nullptr,
                                                    SECRET_SERVICE_OPEN_SESSION, nullptr, &error);
  GHashTable* attributes =
      secret_attributes_build(&kKeyringSchema, "app", "quorvia-bench", "class", "genp", "svce",
                              "polls", "acct", "user_token", nullptr);
  if (!service || !LKKeychain::setPassword("eyJhbGciOiJIUzI1NiJ9.token", "polls", "user_token")) {
    state.SkipWithError("the keyring cannot be used");
    return;
  }
  using Clock = std::chrono::steady_clock;
  const auto micros = [](Clock::duration d) {
    return std::chrono::duration<double, std::micro>(d).count();
  };
  std::vector<double> sdkUs, rawUs;
  long failures = 0;
  for (auto _ : state) {
    auto start = Clock::now();
    failures +=
        LKKeychain::passwordForService("polls", "user_token") != "eyJhbGciOiJIUzI1NiJ9.token";
    sdkUs.push_back(micros(Clock::now() - start));
    start = Clock::now();
    SecretValue* value =
        secret_service_lookup_sync(service, &kKeyringSchema, attributes, nullptr, nullptr);
    rawUs.push_back(micros(Clock::now() - start));
    failures += value == nullptr;
    if (value) secret_value_unref(value);
  }
  const auto percentile = [](std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(p * static_cast<double>(values.size() - 1))];
  };
  state.counters["sdk_p50_us"] = percentile(sdkUs, 0.50);
  state.counters["sdk_p99_us"] = percentile(sdkUs, 0.99);
  state.counters["raw_p50_us"] = percentile(rawUs, 0.50);
  state.counters["raw_p99_us"] = percentile(rawUs, 0.99);
  state.counters["ratio_p50"] = percentile(sdkUs, 0.50) / percentile(rawUs, 0.50);
  state.counters["ratio_p99"] = percentile(sdkUs, 0.99) / percentile(rawUs, 0.99);
  state.counters["failures"] = static_cast<double>(failures);
  g_hash_table_unref(attributes);
  g_object_unref(service);
  env->setKeychainStore(nullptr);  // ends the store's thread before the daemon
}
BENCHMARK(BM_KeyringReadSideBySide)->Iterations(2000)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
