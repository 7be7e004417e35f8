// The delegate-class runtime: lookup through superclasses, add that fails only
// on the class's own method, replace that always succeeds.

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "quorvia/platform/Runtime.h"

namespace quorvia::platform {
namespace {

// An implementation that appends `tag` to `ran` when it runs.
IMP tagging(std::shared_ptr<std::vector<std::string>> ran, std::string tag) {
  return [ran, tag](Object&, const MessageArguments&) { ran->push_back(tag); };
}

struct Hierarchy {
  std::shared_ptr<std::vector<std::string>> ran = std::make_shared<std::vector<std::string>>();
  std::shared_ptr<Class> base = Class::create("Base");
  std::shared_ptr<Class> derived = Class::create("Derived", base);

  Hierarchy() {
    class_addMethod(base.get(), "inherited", tagging(ran, "base.inherited"), "v16@0:8");
    class_addMethod(base.get(), "overridden", tagging(ran, "base.overridden"), "v16@0:8");
    class_addMethod(derived.get(), "overridden", tagging(ran, "derived.overridden"), "v16@0:8");
  }

  // What sending `selector` to a Derived object runs; "-" when nothing answers.
  std::string sendToDerived(const std::string& selector) {
    Object object(derived);
    ran->clear();
    if (!object.send(selector)) return "-";
    return ran->empty() ? "" : ran->back();
  }
};

TEST(RuntimeTest, LookupSearchesSuperclasses) {
  Hierarchy h;
  struct Case {
    std::string selector;
    std::string owner;  // class whose method is found; "" when none
    std::string runs;
  };
  for (const Case& c : std::vector<Case>{{"inherited", "Base", "base.inherited"},
                                         {"overridden", "Derived", "derived.overridden"},
                                         {"missing", "", "-"}}) {
    SCOPED_TRACE(c.selector);
    const Method* method = class_getInstanceMethod(h.derived.get(), c.selector);
    EXPECT_EQ(method != nullptr, !c.owner.empty());
    if (method) {
      EXPECT_EQ(method_getName(method), c.selector);
    }
    if (!c.owner.empty()) {
      // The method found is the owner's own one.
      Class* owner = c.owner == "Base" ? h.base.get() : h.derived.get();
      EXPECT_EQ(class_getInstanceMethod(owner, c.selector), method);
    }
    EXPECT_EQ(h.sendToDerived(c.selector), c.runs);
    EXPECT_EQ(Object(h.derived).respondsToSelector(c.selector), c.runs != "-");
  }
}

TEST(RuntimeTest, AddFailsOnlyWhenTheClassItselfDefinesTheMethod) {
  struct Case {
    std::string selector;
    bool added;
    std::string runsAfter;
  };
  for (const Case& c : std::vector<Case>{{"inherited", true, "added"},
                                         {"overridden", false, "derived.overridden"},
                                         {"missing", true, "added"}}) {
    SCOPED_TRACE(c.selector);
    Hierarchy h;
    EXPECT_EQ(class_addMethod(h.derived.get(), c.selector, tagging(h.ran, "added"), "v16@0:8"),
              c.added);
    EXPECT_EQ(h.sendToDerived(c.selector), c.runsAfter);
    // The superclass is never changed.
    Object base(h.base);
    h.ran->clear();
    base.send(c.selector);
    EXPECT_EQ(h.ran->empty() ? "-" : h.ran->back(),
              c.selector == "missing" ? "-" : "base." + c.selector);
  }
}

TEST(RuntimeTest, ReplaceAlwaysSucceedsOnTheClassItself) {
  struct Case {
    std::string selector;
    bool hadOwnMethod;
  };
  for (const Case& c :
       std::vector<Case>{{"inherited", false}, {"overridden", true}, {"missing", false}}) {
    SCOPED_TRACE(c.selector);
    Hierarchy h;
    IMP previous = class_replaceMethod(h.derived.get(), c.selector, tagging(h.ran, "replaced"),
                                       "v32@0:8@16@24");
    EXPECT_EQ(static_cast<bool>(previous), c.hadOwnMethod);
    EXPECT_EQ(h.sendToDerived(c.selector), "replaced");
    // A replaced method keeps its encoding; an added one takes the given one.
    EXPECT_EQ(method_getTypeEncoding(class_getInstanceMethod(h.derived.get(), c.selector)),
              c.hadOwnMethod ? "v16@0:8" : "v32@0:8@16@24");
    EXPECT_EQ(class_copyMethodList(h.base.get()),
              (std::vector<std::string>{"inherited", "overridden"}));
  }
}

TEST(RuntimeTest, SendingWhileAClassChangesRunsOneWholeImplementation) {
  constexpr int kSends = 2000;
  auto cls = Class::create("Busy");
  std::atomic<int> oldRuns{0};
  std::atomic<int> newRuns{0};
  class_addMethod(
      cls.get(), "tick", [&](Object&, const MessageArguments&) { ++oldRuns; }, "v16@0:8");
  Object object(cls);
  std::thread sender([&] {
    for (int i = 0; i < kSends; ++i) EXPECT_TRUE(object.send("tick"));
  });
  for (int i = 0; i < kSends; ++i) {
    class_replaceMethod(
        cls.get(), "tick", [&](Object&, const MessageArguments&) { ++newRuns; }, "v16@0:8");
    class_addMethod(cls.get(), "extra" + std::to_string(i), nullptr, "v16@0:8");
  }
  sender.join();
  EXPECT_EQ(oldRuns + newRuns, kSends);
  EXPECT_EQ(class_copyMethodList(cls.get()).size(), static_cast<std::size_t>(kSends) + 1);
}

}  // namespace
}  // namespace quorvia::platform
