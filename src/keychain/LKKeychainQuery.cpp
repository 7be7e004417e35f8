#include "keychain/LKKeychainQuery.h"

#include <unicode/utf8.h>

#include <utility>

#include "keychain/LKKeychain.h"
#include "platform/FoundationVersion.h"
#include "platform/KeyedArchiver.h"
#include "platform/Localization.h"

namespace quorvia {
namespace {

using platform::OSStatus;
using platform::Value;

// Status of a call made without its service, account or password data.
constexpr OSStatus kBadArguments = -1001;

bool isUtf8(const platform::Bytes& bytes) {
  const auto* s = reinterpret_cast<const char*>(bytes.data());
  const auto length = static_cast<std::int32_t>(bytes.size());
  for (std::int32_t i = 0; i < length;) {
    UChar32 c;
    U8_NEXT(s, i, length, c);
    if (c < 0) return false;
  }
  return true;
}

const char* messageKey(OSStatus code) {
  switch (code) {
    case kBadArguments: return "LKKeychainErrorBadArguments";
    case platform::errSecUnimplemented: return "errSecUnimplemented";
    case platform::errSecParam: return "errSecParam";
    case platform::errSecAllocate: return "errSecAllocate";
    case platform::errSecNotAvailable: return "errSecNotAvailable";
    case platform::errSecAuthFailed: return "errSecAuthFailed";
    case platform::errSecDuplicateItem: return "errSecDuplicateItem";
    case platform::errSecItemNotFound: return "errSecItemNotFound";
    case platform::errSecInteractionNotAllowed: return "errSecInteractionNotAllowed";
    case platform::errSecDecode: return "errSecDecode";
    default: return "errSecDefault";
  }
}

// Fills a non-null error slot for a non-zero status; returns whether it was 0.
bool succeeded(OSStatus status, platform::Error* error) {
  if (status == platform::errSecSuccess) return true;
  if (error) *error = *LKKeychainQuery::errorWithCode(status);
  return false;
}

void addAccessibility(Value* dictionary) {
  if (auto type = LKKeychain::accessibilityType()) {
    (*dictionary)[platform::kSecAttrAccessible] = *type;
  }
}

}  // namespace

std::optional<std::string> LKKeychainQuery::password() const {
  if (!passwordData_ || passwordData_->empty() || !isUtf8(*passwordData_)) return std::nullopt;
  return std::string(passwordData_->begin(), passwordData_->end());
}

void LKKeychainQuery::setPassword(const std::optional<std::string>& password) {
  if (!password) {
    passwordData_.reset();
    return;
  }
  passwordData_ = platform::Bytes(password->begin(), password->end());
}

std::optional<Value> LKKeychainQuery::passwordObject() const {
  if (!passwordData_ || passwordData_->empty()) return std::nullopt;
  return platform::unarchiveObjectWithData(*passwordData_);
}

void LKKeychainQuery::setPasswordObject(const std::optional<Value>& object) {
  if (!object) {
    passwordData_.reset();
    return;
  }
  passwordData_ = platform::archivedDataWithRootObject(*object);
}

bool LKKeychainQuery::save(platform::Error* error) {
  if (!service_ || !account_ || !passwordData_) return succeeded(kBadArguments, error);
  OSStatus status = platform::SecItemCopyMatching(query(), nullptr);
  if (status == platform::errSecSuccess) {
    Value changes = Value::object();
    changes[platform::kSecValueData] = platform::dataValue(*passwordData_);
    addAccessibility(&changes);
    status = platform::SecItemUpdate(query(), changes);
  } else if (status == platform::errSecItemNotFound) {
    Value attributes = query();
    if (label_) attributes[platform::kSecAttrLabel] = *label_;
    attributes[platform::kSecValueData] = platform::dataValue(*passwordData_);
    addAccessibility(&attributes);
    status = platform::SecItemAdd(attributes, nullptr);
  }
  return succeeded(status, error);
}

bool LKKeychainQuery::deleteItem(platform::Error* error) {
  if (!service_ || !account_) return succeeded(kBadArguments, error);
  return succeeded(platform::SecItemDelete(query()), error);
}

std::optional<Value> LKKeychainQuery::fetchAll(platform::Error* error) {
  Value search = query();
  search[platform::kSecReturnAttributes] = true;
  search[platform::kSecMatchLimit] = platform::kSecMatchLimitAll;
  addAccessibility(&search);
  Value result;
  if (!succeeded(platform::SecItemCopyMatching(search, &result), error)) return std::nullopt;
  return result;
}

bool LKKeychainQuery::fetch(platform::Error* error) {
  if (!service_ || !account_) return succeeded(kBadArguments, error);
  Value search = query();
  search[platform::kSecReturnData] = true;
  search[platform::kSecMatchLimit] = platform::kSecMatchLimitOne;
  Value result;
  if (!succeeded(platform::SecItemCopyMatching(search, &result), error)) return false;
  if (result.is_binary()) {
    const auto& bytes = result.get_binary();
    passwordData_ = platform::Bytes(bytes.begin(), bytes.end());
  } else {
    passwordData_ = platform::Bytes();
  }
  return true;
}

Value LKKeychainQuery::query() const {
  Value dictionary = Value::object();
  dictionary[platform::kSecClass] = platform::kSecClassGenericPassword;
  if (service_) dictionary[platform::kSecAttrService] = *service_;
  if (account_) dictionary[platform::kSecAttrAccount] = *account_;
  if (accessGroup_) dictionary[platform::kSecAttrAccessGroup] = *accessGroup_;
  if (isSynchronizationAvailable()) {
    switch (synchronizationMode_) {
      case LKKeychainQuerySynchronizationModeAny:
        dictionary[platform::kSecAttrSynchronizable] = platform::kSecAttrSynchronizableAny;
        break;
      case LKKeychainQuerySynchronizationModeNo:
        dictionary[platform::kSecAttrSynchronizable] = false;
        break;
      case LKKeychainQuerySynchronizationModeYes:
        dictionary[platform::kSecAttrSynchronizable] = true;
        break;
    }
  }
  return dictionary;
}

bool LKKeychainQuery::isSynchronizationAvailable() {
  return static_cast<long>(platform::kNSFoundationVersionNumber) > 993;
}

std::optional<platform::Error> LKKeychainQuery::errorWithCode(OSStatus code) {
  if (code == platform::errSecSuccess) return std::nullopt;
  platform::Error error;
  error.domain = kLKKeychainErrorDomain;
  error.code = code;
  error.userInfo[platform::kNSLocalizedDescriptionKey] =
      platform::localizedStringForKey(messageKey(code), "", "LKKeychain");
  return error;
}

}  // namespace quorvia
