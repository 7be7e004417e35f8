#pragma once
// Internal: the parsed forms of keychain dictionaries that every store shares,
// so that the in-memory and SQLite stores match, validate and answer alike.

#include <optional>
#include <string>
#include <vector>

#include "platform/Keychain.h"

namespace quorvia::platform::keychain {

/// One stored generic-password item.
struct Item {
  std::string service;
  std::string account;
  std::string accessGroup;
  bool synchronizable = false;
  std::optional<std::string> label;
  std::optional<std::string> description;
  std::string accessible = kSecAttrAccessibleWhenUnlocked;
  Bytes data;
  double created = 0;
  double modified = 0;
};

/// Whether two items share class, service, account, access group and
/// synchronizable flag, the identity that no two stored items share.
bool sameIdentity(const Item& a, const Item& b);

enum class SyncMatch { kNo, kYes, kAny };

/// A parsed search: which items match and what to return about them.
struct Search {
  std::optional<std::string> service;
  std::optional<std::string> account;
  std::optional<std::string> accessGroup;
  std::optional<std::string> label;
  std::optional<std::string> description;
  std::optional<std::string> accessible;
  SyncMatch sync = SyncMatch::kNo;
  bool returnData = false;
  bool returnAttributes = false;
  bool limitAll = false;

  bool matches(const Item& item) const;
};

/// The attribute changes of an update.
struct Changes {
  std::optional<Bytes> data;
  std::optional<std::string> label;
  std::optional<std::string> description;
  std::optional<std::string> accessible;

  void applyTo(Item* item, double now) const;
};

/// Parses a query of SecItemUpdate/Delete/CopyMatching; errSecParam when a key
/// is unknown or of the wrong type, or the class is not generic password.
OSStatus parseSearch(const Value& query, Search* search);

/// Parses the dictionary of SecItemAdd into a new item dated `now` (and what
/// it asks to return).
OSStatus parseNewItem(const Value& attributes, double now, Item* item, Search* returned);

/// Parses the second dictionary of SecItemUpdate.
OSStatus parseChanges(const Value& attributes, Changes* changes);

/// The attribute dictionary of an item, keyed by the short attribute codes.
Value attributesOf(const Item& item);

/// The item an attribute dictionary of attributesOf() describes, its data
/// taken from kSecValueData; false when a field is missing or mistyped.
bool itemFromAttributes(const Value& attributes, Item* item);

/// What a search returns for the items it found (at least one; only the
/// first when the limit is one).
Value resultOf(const Search& search, const std::vector<const Item*>& found);

/// The current wall-clock time as stored in "cdat"/"mdat".
double now();

}  // namespace quorvia::platform::keychain
