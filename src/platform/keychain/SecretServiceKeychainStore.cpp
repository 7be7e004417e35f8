// The keychain store in the desktop's keyring: the Secret Service on the
// session bus, through libsecret. libsecret runs on a thread of the store's
// own with its own GMainContext, one call at a time; the caller waits for each
// request to the keyring with a deadline and cancels it when none answers.

// The calls by D-Bus path (secret-paths.h), unchanged since libsecret 0.18,
// read one secret in the two requests a plain lookup makes and see locked
// items without asking to unlock them.
#define SECRET_API_SUBJECT_TO_CHANGE 1
#include "platform/keychain/SecretServiceKeychainStore.h"

#include <libsecret/secret.h>
#include <pthread.h>
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "platform/GLibThreadContext.h"
#include "platform/Log.h"

namespace quorvia::platform {
namespace {

using keychain::Item;
using keychain::Search;
using keychain::SyncMatch;
using Clock = std::chrono::steady_clock;

constexpr const char* kServiceName = "org.freedesktop.secrets";
// Every Secret Service answers for its default collection at this alias path.
constexpr const char* kDefaultCollection = "/org/freedesktop/secrets/aliases/default";
constexpr const char* kLabelProperty = "org.freedesktop.Secret.Item.Label";
constexpr const char* kAttributesProperty = "org.freedesktop.Secret.Item.Attributes";
// libsecret matches an item to its schema by this attribute.
constexpr const char* kSchemaAttribute = "xdg:schema";
constexpr std::size_t kMaxErrorTextBytes = 200;
// How long dropping the store waits for its thread to end.
constexpr std::chrono::seconds kStopBound{2};

// The SDK's own item is named in words its user recognises in the keyring;
// these are the service layer's names for it.
constexpr std::string_view kTokenService = "polls";
constexpr std::string_view kTokenAccount = "user_token";

const SecretSchema kSchema = {kSecretServiceSchemaName,
                              SECRET_SCHEMA_NONE,
                              {{kSecretServiceAppAttribute, SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {kSecClass, SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {kSecAttrService, SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {kSecAttrAccount, SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {kSecAttrAccessGroup, SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {kSecAttrSynchronizable, SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {kSecAttrLabel, SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {kSecAttrDescription, SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {kSecAttrAccessible, SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {kSecAttrCreationDate, SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {kSecAttrModificationDate, SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}}};

struct Unref {
  void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename T>
using Ref = std::unique_ptr<T, Unref>;
struct ErrorFree {
  void operator()(GError* error) const { g_error_free(error); }
};
using ErrorPtr = std::unique_ptr<GError, ErrorFree>;
struct TableUnref {
  void operator()(GHashTable* table) const { g_hash_table_unref(table); }
};
using Table = std::unique_ptr<GHashTable, TableUnref>;
struct SecretUnref {
  void operator()(SecretValue* value) const { secret_value_unref(value); }
};
using Secret = std::unique_ptr<SecretValue, SecretUnref>;

// A failure's message from the bus, bounded and valid UTF-8 for the log.
std::string errorText(const GError* error) {
  if (!error || !error->message) return "unknown error";
  const std::size_t length = ::strnlen(error->message, kMaxErrorTextBytes);
  gchar* valid = g_utf8_make_valid(error->message, static_cast<gssize>(length));
  std::string text(valid);
  g_free(valid);
  return text;
}

// D-Bus carries text as UTF-8 without NULs; anything else cannot be stored.
bool busText(const std::string& text) {
  return text.find('\0') == std::string::npos &&
         g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr);
}

bool busText(const std::optional<std::string>& text) { return !text || busText(*text); }

bool representable(const Item& item) {
  return busText(item.service) && busText(item.account) && busText(item.accessGroup) &&
         busText(item.label) && busText(item.description);
}

bool representable(const Search& search) {
  return busText(search.service) && busText(search.account) && busText(search.accessGroup) &&
         busText(search.label) && busText(search.description) && busText(search.accessible);
}

// Dates as the shortest text that reads back as the same number.
std::string dateText(double seconds) {
  char text[32];
  const auto end = std::to_chars(text, text + sizeof text, seconds).ptr;
  return std::string(text, end);
}

double dateOf(const char* text) {
  double seconds = 0;
  if (text) std::from_chars(text, text + std::strlen(text), seconds);
  return seconds;
}

// What a person browsing the keyring reads: the app, then what the item is.
std::string displayLabel(const Item& item, const std::string& app) {
  std::string what;
  if (item.service == kTokenService && item.account == kTokenAccount) {
    what = "poll service access token";
  } else if (item.label && !item.label->empty()) {
    what = *item.label;
  } else {
    what = item.service + " / " + item.account;
  }
  return app + ": " + what + " (Quorvia SDK)";
}

// Attribute tables of libsecret: text keys and values, owned by the table.
class Attributes {
 public:
  Attributes() : table_(g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free)) {}
  void put(const char* key, const std::string& value) {
    g_hash_table_replace(table_.get(), g_strdup(key), g_strdup(value.c_str()));
  }
  void put(const char* key, const std::optional<std::string>& value) {
    if (value) put(key, *value);
  }
  GHashTable* get() const { return table_.get(); }

 private:
  Table table_;
};

// Item paths in one fixed order (gnome-keyring numbers its items, so the
// shorter path is the older one), so that every process picks alike.
bool pathBefore(const std::string& a, const std::string& b) {
  return a.size() != b.size() ? a.size() < b.size() : a < b;
}

Item itemOf(GHashTable* attributes) {
  const auto text = [&](const char* key) -> std::optional<std::string> {
    const auto* value = static_cast<const char*>(g_hash_table_lookup(attributes, key));
    if (!value) return std::nullopt;
    return std::string(value);
  };
  Item item;
  item.service = text(kSecAttrService).value_or("");
  item.account = text(kSecAttrAccount).value_or("");
  item.accessGroup = text(kSecAttrAccessGroup).value_or("");
  item.synchronizable = text(kSecAttrSynchronizable) == "1";
  item.label = text(kSecAttrLabel);
  item.description = text(kSecAttrDescription);
  item.accessible = text(kSecAttrAccessible).value_or(kSecAttrAccessibleWhenUnlocked);
  item.created =
      dateOf(static_cast<const char*>(g_hash_table_lookup(attributes, kSecAttrCreationDate)));
  item.modified =
      dateOf(static_cast<const char*>(g_hash_table_lookup(attributes, kSecAttrModificationDate)));
  return item;
}

Bytes bytesOf(SecretValue* value) {
  gsize length = 0;
  const auto* data = reinterpret_cast<const std::uint8_t*>(secret_value_get(value, &length));
  return data ? Bytes(data, data + length) : Bytes();
}

Secret secretOf(const Bytes& data) {
  // Text is marked as text, so that a keyring browser shows the token.
  const auto* text = reinterpret_cast<const char*>(data.data());
  const bool isText = std::find(data.begin(), data.end(), 0) == data.end() &&
                      g_utf8_validate(text, static_cast<gssize>(data.size()), nullptr);
  return Secret(secret_value_new(data.empty() ? "" : text, static_cast<gssize>(data.size()),
                                 isText ? "text/plain" : "application/octet-stream"));
}

// --- A Secret Service that never prompts ---------------------------------
//
// libsecret asks its service object to show a prompt when the keyring wants
// the user to unlock or confirm something; this one refuses at once, so that
// no call ever waits for a person.

constexpr const char* kNoPrompt =
    "the keyring wants to ask the user (to unlock it), and the SDK never prompts";

void dismiss(SecretPrompt* prompt) {
  g_dbus_proxy_call(G_DBUS_PROXY(prompt), "Dismiss", nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
                    nullptr, nullptr);
}

GVariant* refusePromptSync(SecretService*, SecretPrompt* prompt, GCancellable*, const GVariantType*,
                           GError** error) {
  dismiss(prompt);
  g_set_error_literal(error, SECRET_ERROR, SECRET_ERROR_IS_LOCKED, kNoPrompt);
  return nullptr;
}

void refusePrompt(SecretService* self, SecretPrompt* prompt, const GVariantType*, GCancellable*,
                  GAsyncReadyCallback callback, gpointer data) {
  dismiss(prompt);
  GTask* task = g_task_new(self, nullptr, callback, data);
  g_task_return_new_error(task, SECRET_ERROR, SECRET_ERROR_IS_LOCKED, "%s", kNoPrompt);
  g_object_unref(task);
}

GVariant* refusedPrompt(SecretService*, GAsyncResult* result, GError** error) {
  return static_cast<GVariant*>(g_task_propagate_pointer(G_TASK(result), error));
}

GType neverPromptingServiceType() {
  static const GType type = [] {
    constexpr const char* kName = "QuorviaNeverPromptingSecretService";
    if (GType known = g_type_from_name(kName)) return known;
    return g_type_register_static_simple(
        SECRET_TYPE_SERVICE, kName, sizeof(SecretServiceClass),
        [](gpointer klass, gpointer) {
          auto* service = static_cast<SecretServiceClass*>(klass);
          service->prompt_sync = &refusePromptSync;
          service->prompt_async = &refusePrompt;
          service->prompt_finish = &refusedPrompt;
        },
        sizeof(SecretService), nullptr, GTypeFlags{});
  }();
  return type;
}

// The session bus's address; empty when there is none. GLib's own lookup
// would start a bus with dbus-launch where there is none ("autolaunch:"):
// the SDK never starts one.
std::string sessionBusAddress() {
  if (const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS"); address && *address) {
    return std::string_view(address).starts_with("autolaunch:") ? "" : address;
  }
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (!runtime || !*runtime) return "";
  const std::string socket = std::string(runtime) + "/bus";
  struct stat st {};
  if (::stat(socket.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode)) return "";
  gchar* escaped = g_dbus_address_escape_value(socket.c_str());
  std::string address = std::string("unix:path=") + escaped;
  g_free(escaped);
  return address;
}

// One call of the store, run on the keyring thread. The caller reads the
// answer once `done`; one that gave up leaves the job to finish unread.
struct Job {
  std::function<OSStatus(Job&)> body;
  OSStatus status = errSecNotAvailable;
  Value result;
  std::string failure;     // why the keyring failed, for the caller's log line
  bool done = false;       // guarded by the store's mu_
  bool abandoned = false;  // guarded by the store's mu_
};

// An item found in the keyring, with its proxy for changing it.
struct Found {
  std::string path;
  Ref<SecretItem> proxy;
  Item item;
};

// Everything of the store, shared by its handle and its thread: a thread
// that cannot be stopped in time (a request GLib does not let go of) keeps it
// alive and ends on its own.
class Keyring final {
 public:
  Keyring(std::string appIdentifier, SecretServiceLimits limits)
      : app_(validText(std::move(appIdentifier))), limits_(limits) {}

  static std::shared_ptr<Keyring> start(std::string appIdentifier, SecretServiceLimits limits) {
    auto keyring = std::make_shared<Keyring>(std::move(appIdentifier), limits);
    std::thread([keyring] { keyring->run(); }).detach();
    return keyring;
  }

  // Cancels the request in flight and ends the thread, waiting for it a
  // bounded time.
  void stop() {
    GCancellable* request = nullptr;
    std::unique_lock lock(mu_);
    stopping_ = true;
    if (current_) request = G_CANCELLABLE(g_object_ref(current_));
    lock.unlock();
    if (request) {
      g_cancellable_cancel(request);
      g_object_unref(request);
    }
    glib_.quit();
    lock.lock();
    cv_.wait_for(lock, kStopBound, [this] { return exited_; });
  }

  OSStatus add(const Value& attributes, Value* result) {
    Item item;
    Search returned;
    if (OSStatus s = keychain::parseNewItem(attributes, keychain::now(), &item, &returned)) {
      return s;
    }
    if (!representable(item)) return errSecParam;
    return perform(
        "add",
        [this, item, returned](Job& job) {
          if (OSStatus s = addItem(job, item)) return s;
          if (returned.returnData || returned.returnAttributes) {
            job.result = keychain::resultOf(returned, {&item});
          }
          return errSecSuccess;
        },
        result);
  }

  OSStatus update(const Value& query, const Value& attributesToUpdate) {
    Search search;
    keychain::Changes changes;
    if (OSStatus s = keychain::parseSearch(query, &search)) return s;
    if (OSStatus s = keychain::parseChanges(attributesToUpdate, &changes)) return s;
    if (!representable(search) || !busText(changes.label) || !busText(changes.description)) {
      return errSecParam;
    }
    return perform("update", [this, search, changes, at = keychain::now()](Job& job) {
      std::vector<Found> found;
      if (OSStatus s = findItems(job, search, /*withData=*/false, &found)) return s;
      for (Found& each : found) {
        changes.applyTo(&each.item, at);
        if (OSStatus s = rewrite(job, each, changes.data.has_value())) return s;
      }
      return errSecSuccess;
    });
  }

  OSStatus remove(const Value& query) {
    Search search;
    if (OSStatus s = keychain::parseSearch(query, &search)) return s;
    if (!representable(search)) return errSecParam;
    return perform("delete", [this, search](Job& job) {
      std::vector<std::string> paths;
      if (OSStatus s = findPaths(job, searchAttributes(search), &paths)) return s;
      for (const std::string& path : paths) {
        if (OSStatus s = deletePath(job, path)) return s;
      }
      return errSecSuccess;
    });
  }

  OSStatus copyMatching(const Value& query, Value* result) {
    Search search;
    if (OSStatus s = keychain::parseSearch(query, &search)) return s;
    if (!representable(search)) return errSecParam;
    return perform(
        "search",
        [this, search](Job& job) {
          if (!search.returnAttributes && (!search.returnData || !search.limitAll)) {
            // The token's read: its one item's secret, as a plain lookup.
            std::vector<std::string> paths;
            if (OSStatus s = findPaths(job, searchAttributes(search), &paths)) return s;
            if (!search.returnData) return errSecSuccess;
            if (paths.size() == 1) return readSecret(job, paths.front());
          }
          std::vector<Found> found;
          if (OSStatus s = findItems(job, search, search.returnData, &found)) return s;
          // Oldest first, as the platform lists them.
          std::vector<const Found*> oldestFirst;
          for (const Found& each : found) oldestFirst.push_back(&each);
          std::sort(oldestFirst.begin(), oldestFirst.end(), [](const Found* a, const Found* b) {
            return a->item.created != b->item.created ? a->item.created < b->item.created
                                                      : pathBefore(a->path, b->path);
          });
          std::vector<const Item*> items;
          for (const Found* each : oldestFirst) items.push_back(&each->item);
          if (search.returnData || search.returnAttributes) {
            job.result = keychain::resultOf(search, items);
          }
          return errSecSuccess;
        },
        result);
  }

  bool open(std::string* why) {
    std::string reason;
    const OSStatus status = perform(
        nullptr, [this](Job& job) { return ensureOpen(job); }, nullptr, &reason);
    if (why) *why = reason;
    return status == errSecSuccess;
  }

  OSStatus importItem(const Item& moved) {
    if (!representable(moved)) return errSecParam;
    return perform("import", [this, moved](Job& job) {
      Search identity;
      identity.service = moved.service;
      identity.account = moved.account;
      identity.accessGroup = moved.accessGroup;
      identity.sync = moved.synchronizable ? SyncMatch::kYes : SyncMatch::kNo;
      std::vector<Found> found;
      const OSStatus s = findItems(job, identity, /*withData=*/false, &found);
      if (s == errSecItemNotFound) return create(job, moved, nullptr);
      if (s != errSecSuccess) return s;
      Found& newest = *std::max_element(found.begin(), found.end(), [](auto& a, auto& b) {
        return a.item.modified < b.item.modified;
      });
      if (newest.item.modified >= moved.modified) return errSecSuccess;
      newest.item = moved;
      return rewrite(job, newest, /*data=*/true);
    });
  }

 private:
  static std::string validText(std::string text) {
    if (busText(text)) return text;
    std::replace(text.begin(), text.end(), '\0', ' ');
    gchar* valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
    text = valid;
    g_free(valid);
    return text;
  }

  // --- The caller's side ---------------------------------------------------

  // Runs `body` on the keyring thread and waits for it while the keyring
  // answers each request within its limit. Logs one line for a failure of the
  // keyring unless `operation` is null; `why` receives its reason.
  OSStatus perform(const char* operation, std::function<OSStatus(Job&)> body,
                   Value* result = nullptr, std::string* why = nullptr) {
    auto job = std::make_shared<Job>();
    job->body = std::move(body);
    const auto arrived = Clock::now();
    std::unique_lock lock(mu_);
    if (pending_++ == 0) watch(limits_.read);  // the thread is idle: it starts at once
    lock.unlock();
    post([this, job] { runJob(*job); });
    lock.lock();
    while (!job->done) {
      // A caller gives the keyring its whole limit, even one that finds the
      // thread still letting go of a call that gave up before.
      const auto deadline = std::max(watchStart_, arrived) + watchLimit_;
      if (Clock::now() < deadline) {
        cv_.wait_until(lock, deadline);
        continue;
      }
      job->abandoned = true;
      const auto limit = watchLimit_;
      GCancellable* request = current_ ? G_CANCELLABLE(g_object_ref(current_)) : nullptr;
      lock.unlock();
      if (request) {
        g_cancellable_cancel(request);
        g_object_unref(request);
      }
      const std::string reason =
          "the Secret Service did not answer within " + std::to_string(limit.count()) + " ms";
      if (why) *why = reason;
      if (operation) report(operation, reason);
      return errSecNotAvailable;
    }
    const OSStatus status = job->status;
    const std::string failure = std::move(job->failure);
    if (result && status == errSecSuccess && !job->result.is_null())
      *result = std::move(job->result);
    lock.unlock();
    if (why) *why = failure;
    if (operation && !failure.empty()) report(operation, failure);
    return status;
  }

  static void report(const char* operation, const std::string& reason) {
    NSLog(std::string("QuorviaSDK: keychain ") + operation + " failed: " + reason +
          " (errSecNotAvailable)");
  }

  // Restarts the deadline of whatever the keyring thread does next. Holds mu_.
  void watch(std::chrono::milliseconds limit) {
    watchStart_ = Clock::now();
    watchLimit_ = limit;
  }

  // Runs `work` on the keyring thread. Any thread.
  void post(std::function<void()> work) { glib_.post(std::move(work)); }

  // --- The keyring thread ----------------------------------------------------

  void run() {
    pthread_setname_np(pthread_self(), "quorvia-keyring");
    g_main_context_push_thread_default(glib_.context());
    g_main_loop_run(glib_.loop());
    closeSession();
    // GLib frees the closed session's signal subscriptions from this context.
    while (g_main_context_iteration(glib_.context(), FALSE)) {
    }
    g_main_context_pop_thread_default(glib_.context());
    std::lock_guard lock(mu_);
    exited_ = true;
    cv_.notify_all();
  }

  void runJob(Job& job) {
    bool skip;
    {
      std::lock_guard lock(mu_);
      skip = job.abandoned || stopping_;
    }
    const OSStatus status = skip ? errSecNotAvailable : job.body(job);
    std::lock_guard lock(mu_);
    job.status = status;
    job.done = true;
    --pending_;
    watch(limits_.read);
    cv_.notify_all();
  }

  // Makes one request to the keyring: `call` gets the cancellable the
  // waiting caller cancels when the answer is late.
  template <typename Call>
  auto request(Job& job, std::chrono::milliseconds limit, Call&& call) {
    GCancellable* cancellable = startRequest(job, limit);
    auto answer = call(cancellable);
    endRequest(cancellable);
    return answer;
  }

  GCancellable* startRequest(Job& job, std::chrono::milliseconds limit) {
    GCancellable* cancellable = g_cancellable_new();
    std::lock_guard lock(mu_);
    if (job.abandoned || stopping_) g_cancellable_cancel(cancellable);
    current_ = cancellable;
    watch(limit);
    return cancellable;
  }

  void endRequest(GCancellable* cancellable) {
    {
      std::lock_guard lock(mu_);
      current_ = nullptr;
      watch(limits_.read);
    }
    g_object_unref(cancellable);
  }

  // The status of a failed request, with its reason for the caller's log
  // line. A failure that may have lost the session ends it: the next call
  // opens a new one.
  OSStatus failed(Job& job, GError* raw) {
    const ErrorPtr error(raw);
    if (g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_CANCELLED)) return late(job);
    if (g_error_matches(error.get(), SECRET_ERROR, SECRET_ERROR_IS_LOCKED)) {
      job.failure = "the keyring is locked (" + errorText(error.get()) + ")";
      return errSecNotAvailable;
    }
    closeSession();
    const bool lost = g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_CLOSED) ||
                      g_error_matches(error.get(), G_DBUS_ERROR, G_DBUS_ERROR_DISCONNECTED);
    job.failure = (lost ? "the session bus went away (" : "the Secret Service failed (") +
                  errorText(error.get()) + ")";
    return errSecNotAvailable;
  }

  // A request cancelled by a caller that stopped waiting: this job's own,
  // which has logged and gone, or one that waited behind it.
  OSStatus late(Job& job) { return unavailable(job, "the Secret Service did not answer in time"); }

  OSStatus unavailable(Job& job, std::string reason) {
    job.failure = std::move(reason);
    return errSecNotAvailable;
  }

  // An item that went away between finding it and using it.
  static bool vanished(const GError* error) {
    return g_error_matches(error, SECRET_ERROR, SECRET_ERROR_NO_SUCH_OBJECT) ||
           g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_OBJECT);
  }

  void closeSession() {
    service_.reset();
    bus_.reset();
  }

  // Connects and opens an encrypted session with the keyring, unless open.
  OSStatus ensureOpen(Job& job) {
    if (service_ && !g_dbus_connection_is_closed(bus_.get())) return errSecSuccess;
    closeSession();
    const std::string address = sessionBusAddress();
    if (address.empty()) {
      return unavailable(
          job, "there is no session bus (none in $DBUS_SESSION_BUS_ADDRESS or $XDG_RUNTIME_DIR)");
    }
    // A connection of the store's own first: the bus must answer and a keyring
    // be there (or startable) before GLib's shared connection is made, since a
    // failed one stays failed for the whole process, the host's uses included.
    GError* error = nullptr;
    Ref<GDBusConnection> probe(request(job, limits_.open, [&](GCancellable* cancellable) {
      return g_dbus_connection_new_for_address_sync(
          address.c_str(),
          static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                            G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
          nullptr, cancellable, &error);
    }));
    if (!probe) {
      const ErrorPtr lost(error);
      if (g_error_matches(lost.get(), G_IO_ERROR, G_IO_ERROR_CANCELLED)) return late(job);
      return unavailable(job, "the session bus cannot be reached (" + errorText(lost.get()) + ")");
    }
    const OSStatus present = keyringOnBus(job, probe.get());
    g_dbus_connection_close(probe.get(), nullptr, nullptr, nullptr);
    if (present != errSecSuccess) return present;

    // Never cancelled, for the same reason; the bus answered a moment ago.
    Ref<GDBusConnection> bus(request(job, limits_.open, [&](GCancellable*) {
      return g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
    }));
    if (!bus) return failed(job, error);
    if (g_dbus_connection_is_closed(bus.get())) {
      return unavailable(job,
                         "this process's session bus connection closed; the keyring is out of "
                         "reach until the app starts again");
    }
    // The shared connection ends the process when the bus goes away; a lost
    // keyring must not end the host.
    g_dbus_connection_set_exit_on_close(bus.get(), FALSE);
    Ref<SecretService> service(request(job, limits_.open, [&](GCancellable* cancellable) {
      return secret_service_open_sync(neverPromptingServiceType(), nullptr,
                                      SECRET_SERVICE_OPEN_SESSION, cancellable, &error);
    }));
    if (!service) return failed(job, error);
    const OSStatus collection = defaultCollectionExists(job, bus.get());
    if (collection != errSecSuccess) return collection;
    bus_ = std::move(bus);
    service_ = std::move(service);
    return errSecSuccess;
  }

  // A keyring nobody has set up yet (gnome-keyring before its first login)
  // answers on the bus but has nowhere to keep an item, and making a
  // collection would prompt: such a keyring counts as none, so that an
  // automatic choice keeps the items in the file instead of losing them.
  OSStatus defaultCollectionExists(Job& job, GDBusConnection* bus) {
    GError* error = nullptr;
    GVariant* reply = request(job, limits_.open, [&](GCancellable* cancellable) {
      return g_dbus_connection_call_sync(
          bus, kServiceName, kDefaultCollection, "org.freedesktop.DBus.Properties", "Get",
          g_variant_new("(ss)", "org.freedesktop.Secret.Collection", "Locked"),
          G_VARIANT_TYPE("(v)"), G_DBUS_CALL_FLAGS_NONE, static_cast<int>(limits_.open.count()),
          cancellable, &error);
    });
    if (reply) {
      g_variant_unref(reply);
      return errSecSuccess;
    }
    const ErrorPtr lost(error);
    if (g_error_matches(lost.get(), G_IO_ERROR, G_IO_ERROR_CANCELLED)) return late(job);
    return unavailable(job, "the keyring has no default collection to keep items in (" +
                                errorText(lost.get()) + ")");
  }

  // Whether a keyring owns its name on the bus, or the bus can start one.
  OSStatus keyringOnBus(Job& job, GDBusConnection* bus) {
    for (const char* method : {"NameHasOwner", "ListActivatableNames"}) {
      const bool owner = std::strcmp(method, "NameHasOwner") == 0;
      GError* error = nullptr;
      GVariant* reply = request(job, limits_.open, [&](GCancellable* cancellable) {
        return g_dbus_connection_call_sync(
            bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method,
            owner ? g_variant_new("(s)", kServiceName) : nullptr,
            G_VARIANT_TYPE(owner ? "(b)" : "(as)"), G_DBUS_CALL_FLAGS_NONE,
            static_cast<int>(limits_.open.count()), cancellable, &error);
      });
      if (!reply) {
        const ErrorPtr lost(error);
        if (g_error_matches(lost.get(), G_IO_ERROR, G_IO_ERROR_CANCELLED)) return late(job);
        return unavailable(job, "the session bus failed (" + errorText(lost.get()) + ")");
      }
      bool found = false;
      if (owner) {
        gboolean has = FALSE;
        g_variant_get(reply, "(b)", &has);
        found = has;
      } else {
        GVariantIter* names = nullptr;
        g_variant_get(reply, "(as)", &names);
        for (const gchar* name; g_variant_iter_loop(names, "&s", &name);) {
          found = found || std::strcmp(name, kServiceName) == 0;
        }
        g_variant_iter_free(names);
      }
      g_variant_unref(reply);
      if (found) return errSecSuccess;
    }
    return unavailable(job, std::string("no Secret Service (") + kServiceName +
                                ") is running on the session bus or can be started there");
  }

  Attributes searchAttributes(const Search& search) const {
    Attributes a;
    a.put(kSecretServiceAppAttribute, app_);
    a.put(kSecClass, std::string(kSecClassGenericPassword));
    a.put(kSecAttrService, search.service);
    a.put(kSecAttrAccount, search.account);
    a.put(kSecAttrAccessGroup, search.accessGroup);
    a.put(kSecAttrLabel, search.label);
    a.put(kSecAttrDescription, search.description);
    a.put(kSecAttrAccessible, search.accessible);
    if (search.sync != SyncMatch::kAny) {
      a.put(kSecAttrSynchronizable, std::string(search.sync == SyncMatch::kYes ? "1" : "0"));
    }
    return a;
  }

  // The attributes that make an item's identity (no two items share them).
  Attributes identityAttributes(const Item& item) const {
    Search identity;
    identity.service = item.service;
    identity.account = item.account;
    identity.accessGroup = item.accessGroup;
    identity.sync = item.synchronizable ? SyncMatch::kYes : SyncMatch::kNo;
    return searchAttributes(identity);
  }

  Attributes allAttributes(const Item& item) const {
    Attributes a = identityAttributes(item);
    a.put(kSecAttrLabel, item.label);
    a.put(kSecAttrDescription, item.description);
    a.put(kSecAttrAccessible, item.accessible);
    a.put(kSecAttrCreationDate, dateText(item.created));
    a.put(kSecAttrModificationDate, dateText(item.modified));
    return a;
  }

  // The paths of the unlocked items `attributes` match; a locked match fails
  // the call, since reading or changing it would need the user.
  OSStatus findPaths(Job& job, const Attributes& attributes, std::vector<std::string>* paths) {
    if (OSStatus s = ensureOpen(job)) return s;
    gchar** unlocked = nullptr;
    gchar** locked = nullptr;
    GError* error = nullptr;
    const gboolean ok = request(job, limits_.read, [&](GCancellable* cancellable) {
      return secret_service_search_for_dbus_paths_sync(service_.get(), &kSchema, attributes.get(),
                                                       cancellable, &unlocked, &locked, &error);
    });
    if (!ok) return failed(job, error);
    const bool anyLocked = locked && *locked;
    for (gchar** path = unlocked; path && *path; ++path) paths->emplace_back(*path);
    g_strfreev(unlocked);
    g_strfreev(locked);
    if (anyLocked) {
      return unavailable(job, "the keyring is locked, and the SDK never prompts to unlock it");
    }
    std::sort(paths->begin(), paths->end(), pathBefore);
    return paths->empty() ? errSecItemNotFound : errSecSuccess;
  }

  // The items `search` matches, with their secrets when asked.
  OSStatus findItems(Job& job, const Search& search, bool withData, std::vector<Found>* found) {
    std::vector<std::string> paths;
    if (OSStatus s = findPaths(job, searchAttributes(search), &paths)) return s;
    for (const std::string& path : paths) {
      GError* error = nullptr;
      Ref<SecretItem> proxy(request(job, limits_.read, [&](GCancellable* cancellable) {
        return secret_item_new_for_dbus_path_sync(service_.get(), path.c_str(), SECRET_ITEM_NONE,
                                                  cancellable, &error);
      }));
      if (!proxy) {
        if (vanished(error)) {
          g_error_free(error);
          continue;
        }
        return failed(job, error);
      }
      Table attributes(secret_item_get_attributes(proxy.get()));
      if (!attributes) continue;  // a keyring that sent none
      Item item = itemOf(attributes.get());
      if (!search.matches(item)) continue;  // changed since the search
      found->push_back({path, std::move(proxy), std::move(item)});
    }
    if (withData && !found->empty()) {
      std::vector<const gchar*> paths;
      for (const Found& each : *found) paths.push_back(each.path.c_str());
      paths.push_back(nullptr);
      GError* error = nullptr;
      Table secrets(request(job, limits_.read, [&](GCancellable* cancellable) {
        return secret_service_get_secrets_for_dbus_paths_sync(service_.get(), paths.data(),
                                                              cancellable, &error);
      }));
      if (!secrets) return failed(job, error);
      // An item without its secret was locked or deleted meanwhile.
      std::erase_if(*found, [&](Found& each) {
        auto* value =
            static_cast<SecretValue*>(g_hash_table_lookup(secrets.get(), each.path.c_str()));
        if (value) each.item.data = bytesOf(value);
        return value == nullptr;
      });
    }
    return found->empty() ? errSecItemNotFound : errSecSuccess;
  }

  OSStatus readSecret(Job& job, const std::string& path) {
    GError* error = nullptr;
    Secret secret(request(job, limits_.read, [&](GCancellable* cancellable) {
      return secret_service_get_secret_for_dbus_path_sync(service_.get(), path.c_str(), cancellable,
                                                          &error);
    }));
    if (!secret) {
      if (!error || vanished(error)) {  // deleted or locked since the search
        if (error) g_error_free(error);
        return errSecItemNotFound;
      }
      return failed(job, error);
    }
    job.result = dataValue(bytesOf(secret.get()));
    return errSecSuccess;
  }

  OSStatus addItem(Job& job, const Item& item) {
    std::vector<std::string> same;
    OSStatus s = findPaths(job, identityAttributes(item), &same);
    if (s == errSecSuccess) return errSecDuplicateItem;
    if (s != errSecItemNotFound) return s;
    std::string path;
    if (OSStatus created = create(job, item, &path)) return created;
    // Another process may have added the same item meanwhile: the first in
    // path order stays, and every process picks the same one.
    same.clear();
    if (findPaths(job, identityAttributes(item), &same) != errSecSuccess || same.size() < 2) {
      return errSecSuccess;
    }
    for (auto other = same.begin() + 1; other != same.end(); ++other) {
      if (OSStatus deleted = deletePath(job, *other)) return deleted;
    }
    return path == same.front() ? errSecSuccess : errSecDuplicateItem;
  }

  OSStatus create(Job& job, const Item& item, std::string* path) {
    Table properties(g_hash_table_new_full(g_str_hash, g_str_equal, nullptr,
                                           reinterpret_cast<GDestroyNotify>(g_variant_unref)));
    const std::string label = displayLabel(item, app_);
    g_hash_table_insert(properties.get(), const_cast<char*>(kLabelProperty),
                        g_variant_ref_sink(g_variant_new_string(label.c_str())));
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a{ss}"));
    g_variant_builder_add(&builder, "{ss}", kSchemaAttribute, kSchema.name);
    GHashTableIter iter;
    gpointer key = nullptr;
    gpointer value = nullptr;
    const Attributes attributes = allAttributes(item);
    g_hash_table_iter_init(&iter, attributes.get());
    while (g_hash_table_iter_next(&iter, &key, &value)) {
      g_variant_builder_add(&builder, "{ss}", static_cast<const char*>(key),
                            static_cast<const char*>(value));
    }
    g_hash_table_insert(properties.get(), const_cast<char*>(kAttributesProperty),
                        g_variant_ref_sink(g_variant_builder_end(&builder)));
    const Secret secret = secretOf(item.data);
    GError* error = nullptr;
    gchar* created = request(job, limits_.write, [&](GCancellable* cancellable) {
      return secret_service_create_item_dbus_path_sync(
          service_.get(), kDefaultCollection, properties.get(), secret.get(),
          SECRET_ITEM_CREATE_NONE, cancellable, &error);
    });
    if (!created) {
      if (vanished(error)) {
        g_error_free(error);
        return unavailable(job, "the keyring has no default collection to keep items in");
      }
      return failed(job, error);
    }
    if (path) *path = created;
    g_free(created);
    return errSecSuccess;
  }

  // Writes an item's contents over the keyring's item: the secret (when
  // `data`), then its attributes and label.
  OSStatus rewrite(Job& job, Found& found, bool data) {
    GError* error = nullptr;
    if (data) {
      const Secret secret = secretOf(found.item.data);
      const gboolean ok = request(job, limits_.write, [&](GCancellable* cancellable) {
        return secret_item_set_secret_sync(found.proxy.get(), secret.get(), cancellable, &error);
      });
      if (!ok) return failed(job, error);
    }
    const Attributes attributes = allAttributes(found.item);
    gboolean ok = request(job, limits_.write, [&](GCancellable* cancellable) {
      return secret_item_set_attributes_sync(found.proxy.get(), &kSchema, attributes.get(),
                                             cancellable, &error);
    });
    if (!ok) return failed(job, error);
    const std::string label = displayLabel(found.item, app_);
    gchar* current = secret_item_get_label(found.proxy.get());
    const bool same = current && label == current;
    g_free(current);
    if (same) return errSecSuccess;
    ok = request(job, limits_.write, [&](GCancellable* cancellable) {
      return secret_item_set_label_sync(found.proxy.get(), label.c_str(), cancellable, &error);
    });
    return ok ? errSecSuccess : failed(job, error);
  }

  OSStatus deletePath(Job& job, const std::string& path) {
    GError* error = nullptr;
    const gboolean ok = request(job, limits_.write, [&](GCancellable* cancellable) {
      return secret_service_delete_item_dbus_path_sync(service_.get(), path.c_str(), cancellable,
                                                       &error);
    });
    if (ok) return errSecSuccess;
    if (vanished(error)) {
      g_error_free(error);
      return errSecSuccess;
    }
    return failed(job, error);
  }

  const std::string app_;
  const SecretServiceLimits limits_;
  GLibThreadContext glib_;

  std::mutex mu_;
  std::condition_variable cv_;
  int pending_ = 0;                         // guarded by mu_: jobs posted, not yet done
  Clock::time_point watchStart_;            // guarded by mu_: the keyring thread's last step
  std::chrono::milliseconds watchLimit_{};  // guarded by mu_: its limit
  GCancellable* current_ = nullptr;         // guarded by mu_: the request in flight
  bool stopping_ = false;                   // guarded by mu_
  bool exited_ = false;                     // guarded by mu_

  // The keyring thread's own.
  Ref<GDBusConnection> bus_;
  Ref<SecretService> service_;
};

class SecretServiceStore final : public SecretServiceKeychainStore {
 public:
  SecretServiceStore(std::string appIdentifier, SecretServiceLimits limits)
      : keyring_(Keyring::start(std::move(appIdentifier), limits)) {}
  ~SecretServiceStore() override { keyring_->stop(); }

  OSStatus add(const Value& attributes, Value* result) override {
    return keyring_->add(attributes, result);
  }
  OSStatus update(const Value& query, const Value& attributesToUpdate) override {
    return keyring_->update(query, attributesToUpdate);
  }
  OSStatus remove(const Value& query) override { return keyring_->remove(query); }
  OSStatus copyMatching(const Value& query, Value* result) override {
    return keyring_->copyMatching(query, result);
  }
  bool open(std::string* why) override { return keyring_->open(why); }
  OSStatus importItem(const Item& item) override { return keyring_->importItem(item); }

 private:
  const std::shared_ptr<Keyring> keyring_;
};

}  // namespace

std::shared_ptr<SecretServiceKeychainStore> makeSecretServiceKeychainStore(
    std::string appIdentifier, SecretServiceLimits limits) {
  return std::make_shared<SecretServiceStore>(std::move(appIdentifier), limits);
}

}  // namespace quorvia::platform
