#pragma once
/// \file
/// The platform's error value, as the application delegate's
/// didFailToRegisterForRemoteNotificationsWithError callback hands it to a
/// host, and the exception the SDK raises and catches internally (it never
/// reaches the host).

#include <cstdint>
#include <exception>
#include <string>

#include "quorvia/export.h"
#include "quorvia/platform/Value.h"

namespace quorvia::platform {

/// Key of the human-readable message in an error's user info.
inline constexpr const char* kNSLocalizedDescriptionKey = "NSLocalizedDescription";

/// An error value: domain, code and a user-info dictionary (NSError).
struct QUORVIA_EXPORT Error {
  std::string domain;
  std::int64_t code = 0;
  Value userInfo = Value::object();

  /// The message under kNSLocalizedDescriptionKey, or Foundation's generic
  /// "The operation couldn’t be completed. (<domain> error <code>.)".
  std::string localizedDescription() const;
  /// Foundation's description: `Error Domain=D Code=C "message" UserInfo={k=v}`.
  std::string description() const;
};

/// An exception object (NSException): what the platform raises on a message a
/// value does not understand, on an inconsistent table update, and so on. The
/// SDK catches it where its callers are specified to, and at its public
/// boundaries so that nothing reaches the host.
class QUORVIA_EXPORT Exception : public std::exception {
 public:
  Exception(std::string name, std::string reason);
  const std::string& name() const { return name_; }
  const std::string& reason() const { return reason_; }
  /// The exception's description, which is its reason.
  const char* what() const noexcept override { return reason_.c_str(); }

 private:
  std::string name_;
  std::string reason_;
};

/// The exception the platform raises when `selector` is sent to a value that
/// does not answer it, e.g. "-[__NSCFNumber objectForKey:]: unrecognized
/// selector sent to instance".
QUORVIA_EXPORT Exception unrecognizedSelector(const Value& receiver, std::string_view selector);

/// The platform class name of a value's object ("__NSCFString", "NSNull"...).
QUORVIA_EXPORT std::string className(const Value& value);

/// Name used for a message sent to a value that cannot answer it.
inline constexpr const char* kNSInvalidArgumentException = "NSInvalidArgumentException";
inline constexpr const char* kNSInternalInconsistencyException = "NSInternalInconsistencyException";
inline constexpr const char* kNSRangeException = "NSRangeException";

}  // namespace quorvia::platform
