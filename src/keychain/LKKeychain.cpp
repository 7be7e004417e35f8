#include "keychain/LKKeychain.h"

#include <mutex>

namespace quorvia {
namespace {

// The host sets the type before use; the lock only keeps a late change from
// racing a reader.
struct Accessibility {
  std::mutex mu;
  std::optional<std::string> type;
};

Accessibility& accessibility() {
  static auto* a = new Accessibility;
  return *a;
}

LKKeychainQuery queryFor(const std::optional<std::string>& service,
                         const std::optional<std::string>& account) {
  LKKeychainQuery query;
  query.setService(service);
  query.setAccount(account);
  return query;
}

}  // namespace

std::optional<std::string> LKKeychain::passwordForService(const std::optional<std::string>& service,
                                                          const std::optional<std::string>& account,
                                                          platform::Error* error) {
  LKKeychainQuery query = queryFor(service, account);
  if (!query.fetch(error)) return std::nullopt;
  return query.password();
}

std::optional<platform::Bytes> LKKeychain::passwordDataForService(
    const std::optional<std::string>& service, const std::optional<std::string>& account,
    platform::Error* error) {
  LKKeychainQuery query = queryFor(service, account);
  query.fetch(error);
  return query.passwordData();
}

bool LKKeychain::deletePasswordForService(const std::optional<std::string>& service,
                                          const std::optional<std::string>& account,
                                          platform::Error* error) {
  return queryFor(service, account).deleteItem(error);
}

bool LKKeychain::setPassword(const std::optional<std::string>& password,
                             const std::optional<std::string>& service,
                             const std::optional<std::string>& account, platform::Error* error) {
  LKKeychainQuery query = queryFor(service, account);
  query.setPassword(password);
  return query.save(error);
}

bool LKKeychain::setPasswordData(const std::optional<platform::Bytes>& password,
                                 const std::optional<std::string>& service,
                                 const std::optional<std::string>& account,
                                 platform::Error* error) {
  LKKeychainQuery query = queryFor(service, account);
  query.setPasswordData(password);
  return query.save(error);
}

std::optional<platform::Value> LKKeychain::allAccounts(platform::Error* error) {
  return accountsForService(std::nullopt, error);
}

std::optional<platform::Value> LKKeychain::accountsForService(
    const std::optional<std::string>& service, platform::Error* error) {
  return queryFor(service, std::nullopt).fetchAll(error);
}

std::optional<std::string> LKKeychain::accessibilityType() {
  std::lock_guard lock(accessibility().mu);
  return accessibility().type;
}

void LKKeychain::setAccessibilityType(const std::string& accessibilityType) {
  std::lock_guard lock(accessibility().mu);
  accessibility().type = accessibilityType;
}

}  // namespace quorvia
