#pragma once
// Internal: the keychain store in the desktop's own keyring, the Secret
// Service (org.freedesktop.secrets: GNOME Keyring, KWallet, KeePassXC) on the
// session bus, reached through libsecret.

#include <memory>
#include <string>

#include "platform/KeychainStore.h"
#include "platform/keychain/KeychainItem.h"

namespace quorvia::platform {

/// Generic-password items in the default collection of the Secret Service,
/// under the schema "com.quorvia.sdk.GenericPassword" with the app's
/// identifier as the attribute "app": an app sees its own items only. Every
/// keychain attribute is an item attribute under its own short code ("svce",
/// "acct", "agrp", "sync", "pdmn", "cdat", "mdat", and "labl", "desc" when
/// set); the item's label is one a person browsing the keyring understands.
///
/// Never prompts: a locked item or collection fails with errSecNotAvailable.
/// A keyring that does not answer within the limits, a bus that went away, or
/// no keyring at all fail the same way, with one log line per call; the next
/// call tries again. libsecret runs on a thread of the store's own; callers on
/// any thread wait for it, one call at a time. Thread-safe.
class QUORVIA_EXPORT SecretServiceKeychainStore : public KeychainStore {
 public:
  /// Connects and opens the session unless it is open; false, with the reason
  /// in `why` and nothing logged, when no keyring answers within the limits.
  virtual bool open(std::string* why) = 0;

  /// Puts an item moved from another store in the keyring as it stands, its
  /// dates kept. An item of the same identity already there stays when it is
  /// as new or newer, else takes the moved item's contents. errSecSuccess, or
  /// the failure's status (logged).
  virtual OSStatus importItem(const keychain::Item& item) = 0;
};

/// The store for the app `appIdentifier`, on the session bus of
/// $DBUS_SESSION_BUS_ADDRESS (else $XDG_RUNTIME_DIR/bus). It never starts a
/// bus of its own. Connects on first use.
QUORVIA_EXPORT std::shared_ptr<SecretServiceKeychainStore> makeSecretServiceKeychainStore(
    std::string appIdentifier, SecretServiceLimits limits = {});

/// The schema name the store's items carry (libsecret's "xdg:schema").
inline constexpr const char* kSecretServiceSchemaName = "com.quorvia.sdk.GenericPassword";
/// The item attribute that holds the app's identifier.
inline constexpr const char* kSecretServiceAppAttribute = "app";

}  // namespace quorvia::platform
