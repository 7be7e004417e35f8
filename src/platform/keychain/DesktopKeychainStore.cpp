// The desktop's keychain store: its keyring when one answers on the session
// bus, else the file in the data directory. Items an earlier release kept in
// the file move into the keyring once, and the file goes.

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <string>
#include <utility>

#include "platform/KeychainStore.h"
#include "platform/Log.h"
#include "platform/keychain/KeychainItem.h"
#include "platform/keychain/SecretServiceKeychainStore.h"

namespace quorvia::platform {
namespace {

using Storage = DesktopEnvironmentOptions::KeychainStorage;

// Files SQLite may keep beside the store.
constexpr const char* kSidecars[] = {"-journal", "-wal", "-shm"};

// The keyring, which first takes over what the file store holds: before
// each call, until a move has succeeded once, every item of the file goes
// into the keyring (a newer one there stays) and out of the file, and the
// emptied file is removed. A keyring that fails leaves the rest in the file
// for the next call; nothing is lost and nothing stays behind in clear.
class MovingKeychainStore final : public KeychainStore {
 public:
  MovingKeychainStore(std::shared_ptr<SecretServiceKeychainStore> keyring,
                      std::filesystem::path directory)
      : keyring_(std::move(keyring)), directory_(std::move(directory)) {}

  OSStatus add(const Value& attributes, Value* result) override {
    moveFileItems();
    return keyring_->add(attributes, result);
  }
  OSStatus update(const Value& query, const Value& attributesToUpdate) override {
    moveFileItems();
    return keyring_->update(query, attributesToUpdate);
  }
  OSStatus remove(const Value& query) override {
    moveFileItems();
    return keyring_->remove(query);
  }
  OSStatus copyMatching(const Value& query, Value* result) override {
    moveFileItems();
    return keyring_->copyMatching(query, result);
  }

 private:
  enum class Move { kDone, kAgain, kGiveUp };

  void moveFileItems() {
    if (settled_.load(std::memory_order_acquire)) return;
    std::lock_guard lock(mu_);
    if (settled_.load(std::memory_order_relaxed)) return;
    if (moveOnce() != Move::kAgain) settled_.store(true, std::memory_order_release);
  }

  // kDone once the file holds nothing; kAgain when the keyring failed, for
  // the next call; kGiveUp when the file store itself refuses (its own lines
  // say why), which leaves the file as it is for this process.
  Move moveOnce() {
    const std::filesystem::path file = directory_ / kKeychainStoreFileName;
    struct stat st {};
    if (::lstat(file.c_str(), &st) != 0 && errno == ENOENT) return Move::kDone;
    auto fileStore = makeSQLiteKeychainStore(directory_);
    Value items;
    const Value everything = {{kSecClass, kSecClassGenericPassword},
                              {kSecAttrSynchronizable, kSecAttrSynchronizableAny},
                              {kSecReturnAttributes, true},
                              {kSecReturnData, true},
                              {kSecMatchLimit, kSecMatchLimitAll}};
    OSStatus status = fileStore->copyMatching(everything, &items);
    if (status == errSecItemNotFound) items = Value::array();
    if (status != errSecSuccess && status != errSecItemNotFound) {
      return notMoved(file, status, Move::kGiveUp);
    }
    for (const Value& attributes : items) {
      keychain::Item item;
      if (!keychain::itemFromAttributes(attributes, &item)) {
        return notMoved(file, errSecDecode, Move::kGiveUp);
      }
      if (OSStatus s = keyring_->importItem(item)) return notMoved(file, s, Move::kAgain);
      const Value identity = {{kSecClass, kSecClassGenericPassword},
                              {kSecAttrService, item.service},
                              {kSecAttrAccount, item.account},
                              {kSecAttrAccessGroup, item.accessGroup},
                              {kSecAttrSynchronizable, item.synchronizable}};
      status = fileStore->remove(identity);
      if (status != errSecSuccess && status != errSecItemNotFound) {
        return notMoved(file, status, Move::kGiveUp);
      }
    }
    // Empty now, unless another process wrote meanwhile: the next call moves
    // that too.
    status = fileStore->copyMatching({{kSecClass, kSecClassGenericPassword},
                                      {kSecAttrSynchronizable, kSecAttrSynchronizableAny}},
                                     nullptr);
    if (status == errSecSuccess) return Move::kAgain;
    if (status != errSecItemNotFound) return notMoved(file, status, Move::kGiveUp);
    fileStore.reset();  // closes the file
    for (const char* sidecar : kSidecars) ::unlink((file.string() + sidecar).c_str());
    if (::unlink(file.c_str()) != 0 && errno != ENOENT) {
      // Empty, with deleted pages zeroed: nothing of a secret is left in it.
      NSLog("QuorviaSDK: keychain store " + file.string() + " is empty but cannot be removed");
    }
    NSLog("QuorviaSDK: moved " + std::to_string(items.size()) + " keychain item(s) from " +
          file.string() + " into the Secret Service; the file is removed");
    return Move::kDone;
  }

  Move notMoved(const std::filesystem::path& file, OSStatus status, Move next) {
    if (next == Move::kGiveUp || !failureLogged_) {
      std::string line = "QuorviaSDK: keychain items in " + file.string();
      line += next == Move::kGiveUp ? " cannot be moved" : " cannot be moved yet";
      line += " into the Secret Service (status " + std::to_string(status) + "); they stay in ";
      line += next == Move::kGiveUp ? "the file, untouched"
                                    : "the file, and the next keychain call tries again";
      NSLog(line);
    }
    failureLogged_ = true;
    return next;
  }

  const std::shared_ptr<SecretServiceKeychainStore> keyring_;
  const std::filesystem::path directory_;
  std::atomic<bool> settled_{false};  // moved, or given up for this process
  std::mutex mu_;                     // one move at a time
  bool failureLogged_ = false;        // guarded by mu_
};

}  // namespace

std::shared_ptr<KeychainStore> makeDesktopKeychainStore(Storage storage,
                                                        const std::filesystem::path& dataDirectory,
                                                        const std::string& appIdentifier,
                                                        SecretServiceLimits limits) {
  if (storage == Storage::kFile) return makeSQLiteKeychainStore(dataDirectory);
  auto keyring = makeSecretServiceKeychainStore(appIdentifier, limits);
  if (storage == Storage::kAutomatic) {
    std::string why;
    if (!keyring->open(&why)) {
      NSLog("QuorviaSDK: keychain items are kept in " +
            (dataDirectory / kKeychainStoreFileName).string() + ", since " + why);
      return makeSQLiteKeychainStore(dataDirectory);
    }
    NSLog(
        "QuorviaSDK: keychain items are kept in the desktop's keyring (the Secret Service on "
        "the session bus)");
  }
  return std::make_shared<MovingKeychainStore>(std::move(keyring), dataDirectory);
}

}  // namespace quorvia::platform
