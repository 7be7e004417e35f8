#pragma once
// Internal: interception of the application delegate's six push callbacks.
// Each intercepted callback runs the library's work first, then the host's
// own implementation (sent as the "yp_" selector), or nothing when the host's
// class had none, which the added-methods record remembers.

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Runtime.h"
#include "quorvia/platform/Value.h"

namespace quorvia::sdk {

/// What the library does in an intercepted callback before the host's turn.
/// Returns whether the host's implementation is then called.
using LibraryWork = bool (*)(platform::MessageArguments& arguments);

/// Who completes the platform's call, for the callbacks that carry a completion.
enum class Completion {
  kNone,                ///< the callback carries no completion
  kLibraryIfHostLacks,  ///< the library, after the host's turn, when the host's class had none
  kReply,               ///< the reply decides (the default action: as kLibraryIfHostLacks)
};

/// One intercepted callback. Adding a callback means adding a row.
struct InterceptedCallback {
  std::string_view selector;      ///< the platform callback
  std::string_view yp_selector;   ///< where the host's own implementation goes
  std::string_view typeEncoding;  ///< of both
  Completion completion;
  LibraryWork work;
};

/// The six callbacks, in installation order.
const std::vector<InterceptedCallback>& interceptedCallbacks();

/// The interception state of the shared instance. Main thread.
class Interception final {
 public:
  /// Intercepts the callbacks of the class of the application's current
  /// delegate (not its superclasses, not a later delegate). Running it again
  /// installs nothing twice. No delegate: nothing happens.
  void swizzle();
  /// Installs one callback: `originalSelector` of `cls` will run the library's
  /// method `swizzledSelector`, and sending `swizzledSelector` to the delegate
  /// reaches the host's own implementation, or `empty` when `cls` itself had
  /// none (then addedMethods() gets `originalSelector` -> true). A null `cls`
  /// changes nothing.
  void swizzleMethodForClass(platform::Class* cls, std::string_view originalSelector,
                             std::string_view swizzledSelector);

  /// Selector text -> true for each intercepted callback the host's class lacked.
  const platform::Value& addedMethods() const { return addedMethods_; }
  platform::Value& mutableAddedMethods() { return addedMethods_; }
  /// Whether the host's class lacked `selector` when it was intercepted.
  bool hostLacks(std::string_view selector) const;

 private:
  platform::Value addedMethods_ = platform::Value::object();
};

}  // namespace quorvia::sdk
