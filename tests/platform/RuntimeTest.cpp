// The delegate-class runtime: lookup through superclasses, add that fails only
// on the class's own method, replace that always succeeds.

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "quorvia/platform/Runtime.h"

namespace quorvia::platform {
namespace {

// Base defines "inherited" and "overridden"; Derived overrides "overridden".
struct Hierarchy {
  std::shared_ptr<std::vector<std::string>> ran = std::make_shared<std::vector<std::string>>();
  std::shared_ptr<Class> base = Class::create("Base");
  std::shared_ptr<Class> derived = Class::create("Derived", base);

  Hierarchy() {
    class_addMethod(base.get(), "inherited", tagging("base.inherited"), "v16@0:8");
    class_addMethod(base.get(), "overridden", tagging("base.overridden"), "v16@0:8");
    class_addMethod(derived.get(), "overridden", tagging("derived.overridden"), "v16@0:8");
  }
  // An implementation that records `tag` when it runs.
  IMP tagging(std::string tag) {
    return [ran = ran, tag](Object&, const MessageArguments&) { ran->push_back(tag); };
  }
  // What sending `selector` to an object of `cls` runs; "-" when nothing answers.
  std::string send(const std::shared_ptr<Class>& cls, const std::string& selector) {
    Object object(cls);
    ran->clear();
    if (!object.send(selector)) return "-";
    return ran->empty() ? "" : ran->back();
  }
};

TEST(RuntimeTest, LookupAddAndReplaceActOnTheClassItself) {
  struct Case {
    std::string selector;
    std::string found;  // what a Derived object runs at first
    bool added;         // whether adding to Derived succeeds
  };
  const Case cases[] = {{"inherited", "base.inherited", true},
                        {"overridden", "derived.overridden", false},
                        {"missing", "-", true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.selector);
    Hierarchy h;
    EXPECT_EQ(h.send(h.derived, c.selector), c.found);
    EXPECT_EQ(Object(h.derived).respondsToSelector(c.selector), c.found != "-");

    EXPECT_EQ(class_addMethod(h.derived.get(), c.selector, h.tagging("added"), "v16@0:8"), c.added);
    EXPECT_EQ(h.send(h.derived, c.selector), c.added ? "added" : c.found);

    Hierarchy r;
    const IMP previous =
        class_replaceMethod(r.derived.get(), c.selector, r.tagging("replaced"), "v32@0:8@16@24");
    EXPECT_EQ(static_cast<bool>(previous), !c.added);
    EXPECT_EQ(r.send(r.derived, c.selector), "replaced");
    // A replaced method keeps its encoding; an added one takes the given one.
    EXPECT_EQ(method_getTypeEncoding(class_getInstanceMethod(r.derived.get(), c.selector)),
              c.added ? "v32@0:8@16@24" : "v16@0:8");

    // The superclass never changes.
    for (Hierarchy* changed : {&h, &r}) {
      EXPECT_EQ(class_copyMethodList(changed->base.get()),
                (std::vector<std::string>{"inherited", "overridden"}));
      EXPECT_EQ(changed->send(changed->base, c.selector),
                c.selector == "missing" ? "-" : "base." + c.selector);
    }
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
