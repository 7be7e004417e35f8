// The main queue: virtual time, posting, and waking a host loop.

#include <poll.h>

#include <functional>
#include <optional>
#include <thread>
#include <vector>

#include "quorvia/platform/RunLoop.h"

namespace quorvia::platform {
namespace {

TEST(VirtualClockRunsDelayedTasksAtTheirDueTime, InOrder) {
  RunLoop loop(RunLoop::Clock::kVirtual);
  std::vector<std::pair<std::string, Duration>> ran;
  auto note = [&](std::string name) { return [&, name] { ran.emplace_back(name, loop.now()); }; };
  loop.postAfter(seconds(0.3), note("slide done"));
  loop.postAfter(seconds(0.1), note("launch poll"));
  loop.post(note("async"));
  loop.postAfter(seconds(0.1), [&] { loop.postAfter(Duration::zero(), note("mask")); });
  EXPECT_TRUE(ran.empty()) << "posting never runs a task at once";

  loop.advance(seconds(0.099));
  ASSERT_EQ(ran.size(), 1u);
  EXPECT_EQ(ran[0].first, "async");

  loop.advance(seconds(0.001));  // a zero-delay task posted by a due task runs in the same advance
  ASSERT_EQ(ran.size(), 3u);
  EXPECT_EQ(ran[1], std::make_pair(std::string("launch poll"), seconds(0.1)));
  EXPECT_EQ(ran[2].first, "mask");

  loop.advance(seconds(1));
  ASSERT_EQ(ran.size(), 4u);
  EXPECT_EQ(ran[3].second, seconds(0.3)) << "the clock stops at each due time";
  EXPECT_EQ(loop.now(), seconds(1.1));
}

// A waiting loop wakes for what another thread does; the windows are long, so
// a post or stop that the wait missed would hang the test.
TEST(RunLoopWakesForPostsAndStopFromOtherThreads, WhileWaiting) {
  for (const auto clock : {RunLoop::Clock::kVirtual, RunLoop::Clock::kReal}) {
    RunLoop loop(clock);
    bool delivered = false;
    std::thread poster([&] { loop.post([&] { delivered = true; }); });
    EXPECT_TRUE(loop.runUntil([&] { return delivered; }, std::chrono::seconds(30)));
    poster.join();
    EXPECT_TRUE(clock == RunLoop::Clock::kReal || loop.now() == Duration::zero())
        << "a virtual clock does not move while waiting for real events";
  }
  RunLoop stopped(RunLoop::Clock::kReal), posted(RunLoop::Clock::kReal);
  std::thread stopper([&] { stopped.stop(); });
  stopped.run();
  stopper.join();
  std::thread poster([&] { posted.post([&] { posted.stop(); }); });
  posted.runFor(std::chrono::hours(1));
  poster.join();
}

bool readable(int fd) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, 0) == 1;
}

// A host waiting in its own poll loop must wake exactly when there is work or
// the earliest deadline moved, and sleep otherwise.
TEST(WakeDescriptorTellsAHostLoopWhenToDrain, ForEveryKindOfPost) {
  RunLoop loop(RunLoop::Clock::kVirtual);
  const int fd = loop.wakeFileDescriptor();
  ASSERT_GE(fd, 0);
  EXPECT_FALSE(readable(fd));
  EXPECT_EQ(loop.timeUntilNextTimer(), std::nullopt) << "idle: wait for the descriptor alone";

  struct Step {
    const char* what;
    std::function<void()> act;
    bool readableAfter;
    std::optional<Duration> untilNext;
  };
  int ran = 0;
  const Step steps[] = {
      {"a timer", [&] { loop.postAfter(seconds(2), [&] { ++ran; }); }, true, seconds(2)},
      {"drain", [&] { loop.drainOnce(); }, false, seconds(2)},
      {"a later timer", [&] { loop.postAfter(seconds(5), [&] { ++ran; }); }, false, seconds(2)},
      {"an earlier timer", [&] { loop.postAfter(seconds(1), [&] { ++ran; }); }, true, seconds(1)},
      {"drain", [&] { loop.drainOnce(); }, false, seconds(1)},
      {"a task for now", [&] { loop.post([&] { ++ran; }); }, true, Duration::zero()},
      {"drain", [&] { loop.drainOnce(); }, false, seconds(1)},
      {"stop", [&] { loop.stop(); }, true, seconds(1)},
      {"drain", [&] { loop.drainOnce(); }, false, seconds(1)},
      {"time passes", [&] { loop.advance(seconds(5)); }, false, std::nullopt},
  };
  for (const auto& step : steps) {
    step.act();
    EXPECT_EQ(readable(fd), step.readableAfter) << step.what;
    EXPECT_EQ(loop.timeUntilNextTimer(), step.untilNext) << step.what;
  }
  EXPECT_EQ(ran, 4);
  // A host that asks for the descriptor after work was posted finds it readable.
  RunLoop late(RunLoop::Clock::kVirtual);
  late.post([] {});
  late.post([] {});
  EXPECT_TRUE(readable(late.wakeFileDescriptor()));
  EXPECT_EQ(late.drainOnce(), 2u) << "a drain reports how many tasks it ran";
}

}  // namespace
}  // namespace quorvia::platform
