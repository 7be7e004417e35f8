#include "platform/Runtime.h"

#include <map>
#include <mutex>
#include <utility>

namespace quorvia::platform {

class Method final {
 public:
  Method(std::string selector, IMP implementation, std::string typeEncoding)
      : name(std::move(selector)), imp(std::move(implementation)), types(std::move(typeEncoding)) {}

  const std::string name;
  // Both guarded by runtimeMutex().
  IMP imp;
  std::string types;
};

struct Class::Table {
  // Nodes of a map never move, so a Method handed out stays valid while the
  // class lives; methods are never removed.
  std::map<std::string, std::unique_ptr<Method>, std::less<>> methods;
};

// The one door into a class's table; every use holds runtimeMutex().
struct ClassTableAccess {
  static Class::Table& table(const Class& cls) { return *cls.table_; }
};

namespace {

// One lock for all tables: classes are few and changes rare, and a single lock
// lets a lookup walk the superclass chain without lock ordering.
std::mutex& runtimeMutex() {
  static auto* mu = new std::mutex;
  return *mu;
}

Method* ownMethod(const Class& cls, std::string_view name) {
  auto& methods = ClassTableAccess::table(cls).methods;
  auto found = methods.find(name);
  return found == methods.end() ? nullptr : found->second.get();
}

// Requires runtimeMutex().
Method* lookUp(const Class* cls, std::string_view name) {
  for (; cls; cls = cls->superclass().get()) {
    if (Method* method = ownMethod(*cls, name)) return method;
  }
  return nullptr;
}

}  // namespace

std::shared_ptr<Class> Class::create(std::string name, std::shared_ptr<Class> superclass) {
  return std::shared_ptr<Class>(new Class(std::move(name), std::move(superclass)));
}

Class::Class(std::string name, std::shared_ptr<Class> superclass)
    : name_(std::move(name)), superclass_(std::move(superclass)), table_(new Table) {}

Class::~Class() = default;

Object::Object(std::shared_ptr<Class> cls) : class_(std::move(cls)) {}

Object::~Object() = default;

bool Object::respondsToSelector(std::string_view selector) const {
  std::lock_guard lock(runtimeMutex());
  return lookUp(class_.get(), selector) != nullptr;
}

bool Object::send(std::string_view selector, const MessageArguments& arguments) {
  IMP imp;
  {
    std::lock_guard lock(runtimeMutex());
    const Method* method = lookUp(class_.get(), selector);
    if (!method) return false;
    imp = method->imp;
  }
  // Run unlocked: an implementation may itself send messages or change classes.
  if (imp) imp(*this, arguments);
  return true;
}

const Method* class_getInstanceMethod(const Class* cls, std::string_view name) {
  std::lock_guard lock(runtimeMutex());
  return lookUp(cls, name);
}

bool class_addMethod(Class* cls, std::string_view name, IMP imp, std::string_view types) {
  if (!cls) return false;
  std::lock_guard lock(runtimeMutex());
  auto& methods = ClassTableAccess::table(*cls).methods;
  if (methods.find(name) != methods.end()) return false;
  methods.emplace(std::string(name),
                  std::make_unique<Method>(std::string(name), std::move(imp), std::string(types)));
  return true;
}

IMP class_replaceMethod(Class* cls, std::string_view name, IMP imp, std::string_view types) {
  if (!cls) return {};
  std::lock_guard lock(runtimeMutex());
  if (Method* method = ownMethod(*cls, name)) {
    // The existing method keeps its type encoding, as on the platform.
    return std::exchange(method->imp, std::move(imp));
  }
  ClassTableAccess::table(*cls).methods.emplace(
      std::string(name),
      std::make_unique<Method>(std::string(name), std::move(imp), std::string(types)));
  return {};
}

std::vector<std::string> class_copyMethodList(const Class* cls) {
  std::vector<std::string> names;
  if (!cls) return names;
  std::lock_guard lock(runtimeMutex());
  for (const auto& entry : ClassTableAccess::table(*cls).methods) names.push_back(entry.first);
  return names;
}

std::string method_getName(const Method* method) { return method ? method->name : std::string(); }

IMP method_getImplementation(const Method* method) {
  if (!method) return {};
  std::lock_guard lock(runtimeMutex());
  return method->imp;
}

std::string method_getTypeEncoding(const Method* method) {
  if (!method) return {};
  std::lock_guard lock(runtimeMutex());
  return method->types;
}

Class* object_getClass(const Object* object) { return object ? object->getClass().get() : nullptr; }

}  // namespace quorvia::platform
