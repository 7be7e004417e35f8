// The delegate-class runtime under concurrent change. (Which methods adding
// and replacing reach is checked through the interception they serve.)

#include <atomic>
#include <string>
#include <thread>

#include "platform/Runtime.h"

namespace quorvia::platform {
namespace {

// Messages sent while another thread replaces and adds methods each run one
// whole implementation, old or new, and no method added is lost.
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
