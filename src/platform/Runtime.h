#pragma once
/// \file
/// A small object runtime for delegate classes, the stand-in for the
/// platform's method-exchanging runtime. A host makes its application
/// delegate's class here (Class::create, class_addMethod for the push
/// callbacks it implements) and sets an object of it with
/// Application::setDelegate(). A class has a name, an optional
/// superclass and a table of methods keyed by selector text; an object has a
/// class; sending a message to an object runs the implementation found by
/// searching the object's class and then its superclasses.
///
/// Method implementations all share one signature: they take the receiver and
/// a type-erased pack of arguments (MessageArguments), and each method carries
/// a type-encoding string saying which members of the pack it uses.
///
/// Threading: every function here is safe to call from any thread; the method
/// tables are guarded by one lock that is never held while an implementation
/// runs. Changing a class while another thread sends messages to its objects
/// is therefore safe, though which implementation such a send runs is then a
/// matter of timing.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "quorvia/export.h"
#include "quorvia/platform/Error.h"
#include "quorvia/platform/Value.h"

namespace quorvia::platform {

class Application;
class Class;
class Object;

/// Fetch result handed to a remote-notification fetch completion
/// (UIBackgroundFetchResult).
inline constexpr int UIBackgroundFetchResultNewData = 0;
inline constexpr int UIBackgroundFetchResultNoData = 1;
inline constexpr int UIBackgroundFetchResultFailed = 2;

/// The arguments of one message, type-erased: each method reads the members
/// its type encoding names and ignores the rest. Members a message does not
/// carry stay empty (nil).
struct QUORVIA_EXPORT MessageArguments {
  /// The application object (non-owning; the process-wide one outlives it).
  Application* application = nullptr;
  /// A device push token.
  std::optional<Bytes> deviceToken;
  /// A failure, such as a failed push registration.
  std::optional<Error> error;
  /// A push payload (a remote notification's user info).
  std::optional<Value> userInfo;
  /// A notification action's identifier.
  std::optional<std::string> identifier;
  /// A notification action's response info (e.g. text the user typed).
  std::optional<Value> responseInfo;
  /// A remote-notification fetch completion, taking a fetch result.
  std::function<void(int fetchResult)> fetchCompletionHandler;
  /// A notification action's completion.
  std::function<void()> completionHandler;
};

/// A method implementation: runs with `self` as the receiver. An empty
/// function is the nil implementation; sending a message that resolves to it
/// does nothing.
using IMP = std::function<void(Object& self, const MessageArguments& arguments)>;

/// One entry of a class's method table: a selector, an implementation and a
/// type encoding. Owned by its class and valid as long as the class is alive;
/// replacing the method changes this entry in place, as on the platform.
class Method;

/// A class of the runtime. Shared ownership: objects and subclasses keep their
/// class alive. Methods are added and replaced, never removed.
class QUORVIA_EXPORT Class final {
 public:
  /// A new class named `name` whose superclass is `superclass` (null for a
  /// root class), with an empty method table.
  static std::shared_ptr<Class> create(std::string name,
                                       std::shared_ptr<Class> superclass = nullptr);

  ~Class();
  Class(const Class&) = delete;
  Class& operator=(const Class&) = delete;

  /// The class's name (class_getName).
  const std::string& name() const { return name_; }
  /// The superclass, or null for a root class (class_getSuperclass).
  const std::shared_ptr<Class>& superclass() const { return superclass_; }

 private:
  struct Table;
  friend struct ClassTableAccess;
  Class(std::string name, std::shared_ptr<Class> superclass);

  const std::string name_;
  const std::shared_ptr<Class> superclass_;
  std::unique_ptr<Table> table_;
};

/// An object of the runtime: an instance of a class. A host may derive from it
/// to keep state of its own and reach that state from its implementations
/// with a cast of `self`.
class QUORVIA_EXPORT Object {
 public:
  /// An instance of `cls` (which must not be null); keeps the class alive.
  explicit Object(std::shared_ptr<Class> cls);
  virtual ~Object();
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

  /// The object's class (object_getClass).
  const std::shared_ptr<Class>& getClass() const { return class_; }
  /// Whether the class or one of its superclasses has a method `selector`.
  bool respondsToSelector(std::string_view selector) const;
  /// Sends `selector` with `arguments`: runs the implementation that the
  /// class chain resolves, on the calling thread, without any runtime lock
  /// held. Returns false, doing nothing, when no class in the chain has the
  /// method (where the platform would raise an unrecognised-selector error).
  bool send(std::string_view selector, const MessageArguments& arguments = {});

 private:
  const std::shared_ptr<Class> class_;
};

/// The method `name` of `cls` or, failing that, of its nearest superclass
/// that has one; null when none has it or `cls` is null.
QUORVIA_EXPORT const Method* class_getInstanceMethod(const Class* cls, std::string_view name);

/// Adds a method `name` to `cls` itself. Fails (returns false, changing
/// nothing) only when `cls` itself already has a method `name`; one inherited
/// from a superclass does not prevent the add. False also when `cls` is null.
QUORVIA_EXPORT bool class_addMethod(Class* cls, std::string_view name, IMP imp,
                                    std::string_view types);

/// Gives `cls` itself the method `name` with `imp` and `types`: replaces the
/// implementation of its own method of that name (keeping that method's type
/// encoding, as the platform does) or, when it has none, adds one. Returns the
/// implementation it replaced, or the nil implementation. Superclasses are not
/// touched. Does nothing when `cls` is null.
QUORVIA_EXPORT IMP class_replaceMethod(Class* cls, std::string_view name, IMP imp,
                                       std::string_view types);

/// The selector texts of the methods that `cls` itself has (not inherited
/// ones), sorted; empty when `cls` is null.
QUORVIA_EXPORT std::vector<std::string> class_copyMethodList(const Class* cls);

/// The method's selector text; empty for a null method.
QUORVIA_EXPORT std::string method_getName(const Method* method);
/// The method's implementation; the nil implementation for a null method.
QUORVIA_EXPORT IMP method_getImplementation(const Method* method);
/// The method's type encoding; empty for a null method.
QUORVIA_EXPORT std::string method_getTypeEncoding(const Method* method);

/// The class of `object`; null for a null object.
QUORVIA_EXPORT Class* object_getClass(const Object* object);

}  // namespace quorvia::platform
