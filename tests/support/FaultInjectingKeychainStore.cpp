#include "support/FaultInjectingKeychainStore.h"

#include <utility>

namespace quorvia::platform {

FaultInjectingKeychainStore::FaultInjectingKeychainStore(std::shared_ptr<KeychainStore> wrapped)
    : wrapped_(std::move(wrapped)) {}

void FaultInjectingKeychainStore::failCall(Operation operation, OSStatus status, int nth) {
  std::lock_guard lock(mu_);
  faults_.push_back({operation, status, nth < 1 ? 0 : nth - 1});
}

void FaultInjectingKeychainStore::failAlways(Operation operation, OSStatus status) {
  std::lock_guard lock(mu_);
  faults_.push_back({operation, status, -1});
}

void FaultInjectingKeychainStore::clearFaults() {
  std::lock_guard lock(mu_);
  faults_.clear();
}

std::vector<FaultInjectingKeychainStore::Call> FaultInjectingKeychainStore::calls() const {
  std::lock_guard lock(mu_);
  return calls_;
}

bool FaultInjectingKeychainStore::intercept(Call call, OSStatus* status) {
  std::lock_guard lock(mu_);
  const Operation operation = call.operation;
  calls_.push_back(std::move(call));
  for (auto it = faults_.begin(); it != faults_.end(); ++it) {
    if (it->operation != operation) continue;
    if (it->remaining == -1) {
      *status = it->status;
      return true;
    }
    if (it->remaining == 0) {
      *status = it->status;
      faults_.erase(it);
      return true;
    }
    --it->remaining;
  }
  return false;
}

OSStatus FaultInjectingKeychainStore::add(const Value& attributes, Value* result) {
  OSStatus status = errSecSuccess;
  if (intercept({Operation::kAdd, attributes, Value()}, &status)) return status;
  return wrapped_->add(attributes, result);
}

OSStatus FaultInjectingKeychainStore::update(const Value& query, const Value& attributesToUpdate) {
  OSStatus status = errSecSuccess;
  if (intercept({Operation::kUpdate, query, attributesToUpdate}, &status)) return status;
  return wrapped_->update(query, attributesToUpdate);
}

OSStatus FaultInjectingKeychainStore::remove(const Value& query) {
  OSStatus status = errSecSuccess;
  if (intercept({Operation::kDelete, query, Value()}, &status)) return status;
  return wrapped_->remove(query);
}

OSStatus FaultInjectingKeychainStore::copyMatching(const Value& query, Value* result) {
  OSStatus status = errSecSuccess;
  if (intercept({Operation::kCopyMatching, query, Value()}, &status)) return status;
  return wrapped_->copyMatching(query, result);
}

}  // namespace quorvia::platform
