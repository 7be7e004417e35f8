#pragma once
/// \file
/// A keychain store wrapper for tests that records every call and answers
/// chosen calls with chosen statuses.

#include <memory>
#include <mutex>
#include <vector>

#include "platform/KeychainStore.h"

namespace quorvia::platform {

/// Wraps a store to record every call and to answer a chosen call with a
/// chosen status instead of reaching the wrapped store (to exercise "device
/// locked" and other failure paths). Thread-safe.
class FaultInjectingKeychainStore final : public KeychainStore {
 public:
  enum class Operation { kAdd, kUpdate, kDelete, kCopyMatching };

  /// One recorded call: the operation and its first dictionary argument.
  struct Call {
    Operation operation;
    Value query;
    Value attributesToUpdate;  // SecItemUpdate only; null otherwise.
  };

  explicit FaultInjectingKeychainStore(std::shared_ptr<KeychainStore> wrapped);

  /// The `nth` (1-based, counted from now) call of `operation` answers
  /// `status` without reaching the wrapped store.
  void failCall(Operation operation, OSStatus status, int nth = 1);
  /// Every later call of `operation` answers `status`, until clearFaults().
  void failAlways(Operation operation, OSStatus status);
  void clearFaults();

  /// Every call so far, in order, including failed ones.
  std::vector<Call> calls() const;

  OSStatus add(const Value& attributes, Value* result) override;
  OSStatus update(const Value& query, const Value& attributesToUpdate) override;
  OSStatus remove(const Value& query) override;
  OSStatus copyMatching(const Value& query, Value* result) override;

 private:
  struct Fault {
    Operation operation;
    OSStatus status;
    int remaining;  // calls to let through first; -1 = every call.
  };
  // Records the call; true (with `*status` set) when a fault answers it.
  bool intercept(Call call, OSStatus* status);

  std::shared_ptr<KeychainStore> wrapped_;
  mutable std::mutex mu_;
  std::vector<Fault> faults_;
  std::vector<Call> calls_;
};

}  // namespace quorvia::platform
