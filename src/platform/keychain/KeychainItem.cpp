#include "platform/keychain/KeychainItem.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <string_view>

#include "quorvia/platform/Clock.h"

namespace quorvia::platform::keychain {
namespace {

constexpr std::array<std::string_view, 7> kAccessibleValues = {
    kSecAttrAccessibleWhenUnlocked,
    kSecAttrAccessibleAfterFirstUnlock,
    kSecAttrAccessibleAlways,
    kSecAttrAccessibleWhenPasscodeSetThisDeviceOnly,
    kSecAttrAccessibleWhenUnlockedThisDeviceOnly,
    kSecAttrAccessibleAfterFirstUnlockThisDeviceOnly,
    kSecAttrAccessibleAlwaysThisDeviceOnly};

bool readString(const Value& v, std::optional<std::string>* out) {
  if (!v.is_string()) return false;
  *out = v.get<std::string>();
  return true;
}

// Booleans arrive as booleans or as the numbers 0 and 1.
bool readBool(const Value& v, bool* out) {
  if (v.is_boolean()) {
    *out = v.get<bool>();
    return true;
  }
  if (v.is_number_integer() || v.is_number_unsigned()) {
    const auto n = v.get<std::int64_t>();
    if (n != 0 && n != 1) return false;
    *out = n == 1;
    return true;
  }
  return false;
}

bool readSync(const Value& v, SyncMatch* out) {
  if (v.is_string()) {
    if (v.get<std::string>() != kSecAttrSynchronizableAny) return false;
    *out = SyncMatch::kAny;
    return true;
  }
  bool flag = false;
  if (!readBool(v, &flag)) return false;
  *out = flag ? SyncMatch::kYes : SyncMatch::kNo;
  return true;
}

bool readLimit(const Value& v, bool* limitAll) {
  if (v.is_string()) {
    const auto s = v.get<std::string>();
    if (s == kSecMatchLimitOne) return (*limitAll = false, true);
    if (s == kSecMatchLimitAll) return (*limitAll = true, true);
    return false;
  }
  if ((v.is_number_integer() || v.is_number_unsigned()) && v.get<std::int64_t>() >= 1) {
    *limitAll = v.get<std::int64_t>() > 1;
    return true;
  }
  return false;
}

bool readAccessible(const Value& v, std::optional<std::string>* out) {
  if (!readString(v, out)) return false;
  return std::find(kAccessibleValues.begin(), kAccessibleValues.end(), **out) !=
         kAccessibleValues.end();
}

bool readData(const Value& v, Bytes* out) {
  if (!v.is_binary()) return false;
  const auto& bin = v.get_binary();
  out->assign(bin.begin(), bin.end());
  return true;
}

bool isGenericPasswordClass(const Value& dictionary) {
  const Value* cls = valueForKey(dictionary, kSecClass);
  return cls && cls->is_string() && cls->get<std::string>() == kSecClassGenericPassword;
}

// The keys a search understands; `key` is one of them when this returns true.
bool readSearchKey(const std::string& key, const Value& v, Search* s) {
  if (key == kSecClass) return true;  // checked by the caller
  if (key == kSecAttrService) return readString(v, &s->service);
  if (key == kSecAttrAccount) return readString(v, &s->account);
  if (key == kSecAttrAccessGroup) return readString(v, &s->accessGroup);
  if (key == kSecAttrLabel) return readString(v, &s->label);
  if (key == kSecAttrDescription) return readString(v, &s->description);
  if (key == kSecAttrAccessible) return readString(v, &s->accessible);
  if (key == kSecAttrSynchronizable) return readSync(v, &s->sync);
  if (key == kSecReturnData) return readBool(v, &s->returnData);
  if (key == kSecReturnAttributes) return readBool(v, &s->returnAttributes);
  if (key == kSecMatchLimit) return readLimit(v, &s->limitAll);
  return false;
}

}  // namespace

bool sameIdentity(const Item& a, const Item& b) {
  return a.service == b.service && a.account == b.account && a.accessGroup == b.accessGroup &&
         a.synchronizable == b.synchronizable;
}

bool Search::matches(const Item& item) const {
  if (service && *service != item.service) return false;
  if (account && *account != item.account) return false;
  if (accessGroup && *accessGroup != item.accessGroup) return false;
  if (label && label != item.label) return false;
  if (description && description != item.description) return false;
  if (accessible && *accessible != item.accessible) return false;
  switch (sync) {
    case SyncMatch::kNo: return !item.synchronizable;
    case SyncMatch::kYes: return item.synchronizable;
    case SyncMatch::kAny: return true;
  }
  return false;
}

void Changes::applyTo(Item* item, double at) const {
  if (data) item->data = *data;
  if (label) item->label = label;
  if (description) item->description = description;
  if (accessible) item->accessible = *accessible;
  item->modified = at;
}

OSStatus parseSearch(const Value& query, Search* search) {
  if (!query.is_object() || !isGenericPasswordClass(query)) return errSecParam;
  *search = Search{};
  for (const auto& entry : query.items()) {
    if (!readSearchKey(entry.key(), entry.value(), search)) return errSecParam;
  }
  return errSecSuccess;
}

OSStatus parseNewItem(const Value& attributes, double at, Item* item, Search* returned) {
  if (!attributes.is_object() || !isGenericPasswordClass(attributes)) return errSecParam;
  *item = Item{};
  *returned = Search{};
  item->created = item->modified = at;
  for (const auto& entry : attributes.items()) {
    const std::string& key = entry.key();
    const Value& v = entry.value();
    std::optional<std::string> text;
    bool ok = true;
    if (key == kSecClass) {
    } else if (key == kSecAttrService || key == kSecAttrAccount || key == kSecAttrAccessGroup) {
      ok = readString(v, &text);
      if (ok) {
        (key == kSecAttrService ? item->service
                                : key == kSecAttrAccount ? item->account : item->accessGroup) =
            *text;
      }
    } else if (key == kSecAttrLabel) {
      ok = readString(v, &item->label);
    } else if (key == kSecAttrDescription) {
      ok = readString(v, &item->description);
    } else if (key == kSecAttrAccessible) {
      ok = readAccessible(v, &text);
      if (ok) item->accessible = *text;
    } else if (key == kSecAttrSynchronizable) {
      // An item added under the Any value is stored as not synchronised.
      SyncMatch sync = SyncMatch::kNo;
      ok = readSync(v, &sync);
      item->synchronizable = sync == SyncMatch::kYes;
    } else if (key == kSecValueData) {
      ok = readData(v, &item->data);
    } else {
      ok = readSearchKey(key, v, returned);
    }
    if (!ok) return errSecParam;
  }
  return errSecSuccess;
}

OSStatus parseChanges(const Value& attributes, Changes* changes) {
  if (!attributes.is_object()) return errSecParam;
  *changes = Changes{};
  for (const auto& entry : attributes.items()) {
    const std::string& key = entry.key();
    const Value& v = entry.value();
    bool ok = false;
    if (key == kSecValueData) {
      Bytes data;
      ok = readData(v, &data);
      changes->data = std::move(data);
    } else if (key == kSecAttrLabel) {
      ok = readString(v, &changes->label);
    } else if (key == kSecAttrDescription) {
      ok = readString(v, &changes->description);
    } else if (key == kSecAttrAccessible) {
      ok = readAccessible(v, &changes->accessible);
    }
    if (!ok) return errSecParam;
  }
  return errSecSuccess;
}

Value attributesOf(const Item& item) {
  Value a = Value::object();
  a[kSecClass] = kSecClassGenericPassword;
  a[kSecAttrService] = item.service;
  a[kSecAttrAccount] = item.account;
  a[kSecAttrAccessGroup] = item.accessGroup;
  a[kSecAttrSynchronizable] = item.synchronizable;
  a[kSecAttrAccessible] = item.accessible;
  a[kSecAttrCreationDate] = item.created;
  a[kSecAttrModificationDate] = item.modified;
  if (item.label) a[kSecAttrLabel] = *item.label;
  if (item.description) a[kSecAttrDescription] = *item.description;
  return a;
}

bool itemFromAttributes(const Value& attributes, Item* item) {
  *item = Item{};
  const auto text = [&](const char* key, std::string* out) {
    const Value* v = valueForKey(attributes, key);
    if (!v || !v->is_string()) return false;
    *out = v->get<std::string>();
    return true;
  };
  const auto optionalText = [&](const char* key, std::optional<std::string>* out) {
    const Value* v = valueForKey(attributes, key);
    if (v && v->is_string()) *out = v->get<std::string>();
    return !v || v->is_string();
  };
  const auto date = [&](const char* key, double* out) {
    const Value* v = valueForKey(attributes, key);
    if (!v || !v->is_number()) return false;
    *out = v->get<double>();
    return true;
  };
  const Value* sync = valueForKey(attributes, kSecAttrSynchronizable);
  const Value* data = valueForKey(attributes, kSecValueData);
  return text(kSecAttrService, &item->service) && text(kSecAttrAccount, &item->account) &&
         text(kSecAttrAccessGroup, &item->accessGroup) && sync &&
         readBool(*sync, &item->synchronizable) && optionalText(kSecAttrLabel, &item->label) &&
         optionalText(kSecAttrDescription, &item->description) &&
         text(kSecAttrAccessible, &item->accessible) &&
         date(kSecAttrCreationDate, &item->created) &&
         date(kSecAttrModificationDate, &item->modified) && data && readData(*data, &item->data);
}

Value resultOf(const Search& search, const std::vector<const Item*>& found) {
  auto one = [&](const Item& item) {
    if (!search.returnAttributes) return dataValue(item.data);
    Value a = attributesOf(item);
    if (search.returnData) a[kSecValueData] = dataValue(item.data);
    return a;
  };
  if (!search.limitAll) return found.empty() ? Value() : one(*found.front());
  Value all = Value::array();
  for (const Item* item : found) all.push_back(one(*item));
  return all;
}

double now() {
  return std::chrono::duration<double>(wallClockNow().time_since_epoch()).count();
}

}  // namespace quorvia::platform::keychain
