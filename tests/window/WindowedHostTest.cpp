// Each example host in a real X window: Xvfb, a private session bus with a notification service,
// a broker, the devserver and the host are started here. A poll pushed through the broker slides
// in, xdotool clicks the card and an option where the host says they are, and the devserver
// records the reply; with the window in the background the next push is a desktop notification
// whose button posts the reply.
#include "window/HostSession.h"

namespace quorvia {
namespace {

using namespace testing;

class WindowedHostTest : public ::testing::TestWithParam<Host> {};

TEST_P(WindowedHostTest, PushedPollIsAnsweredInTheWindowAndFromANotification) {
  HostSession session(GetParam());
  ASSERT_TRUE(session.ready());
  const std::string& display = session.display();

  // A notification service that prints each bubble and presses a button when told.
  ChildProcess notifications(
      {"/usr/bin/python3", QUORVIA_NOTIFICATION_SERVICE, "--address", session.busAddress()},
      kMerged);
  ASSERT_FALSE(notifications.waitForLine(containing("\"ready\"")).empty())
      << notifications.output();
  ASSERT_TRUE(session.start()) << session.host().output();
  ChildProcess& host = session.host();
  double originX = 0, originY = 0;
  ASSERT_TRUE(session.windowOrigin(originX, originY));
  ASSERT_TRUE(session.focusWindow()) << host.output();

  const int first = session.createPoll("Tea or coffee?");
  ASSERT_GT(first, 0);
  ASSERT_TRUE(session.push(first));
  ASSERT_FALSE(host.waitForLine(containing("host: presented Tea or coffee?")).empty())
      << host.output();
  const auto collapsed = elementsOf(host.waitForLine([](const std::string& l) {
    const Element* poll = find(elementsOf(l), "Poll");
    return poll && poll->y == 20;
  }));
  const Element* banner = find(collapsed, "Poll");
  const Element* question = find(collapsed, "Tea or coffee?");
  ASSERT_TRUE(banner && question && find(collapsed, "Close")) << host.output();
  EXPECT_EQ(banner->role, "alert");
  EXPECT_EQ(banner->w, kScreenWidth);
  EXPECT_EQ(question->role, "label");
  const std::string before = screenshot(display, session.dir() / "collapsed.rgb");
  ASSERT_EQ(before.size(), std::size_t{kScreenWidth} * kScreenHeight * 3);
  // The card is white around the question.
  EXPECT_EQ(rgb(before, originX + question->x + 2, originY + question->y + 2),
            (std::array<int, 3>{255, 255, 255}));

  const auto click = [&](const Element& e) {
    EXPECT_TRUE(run(display, "xdotool mousemove --sync " + std::to_string(originX + e.x + e.w / 2) +
                                 " " + std::to_string(originY + e.y + e.h / 2) + " click 1"));
  };
  click(*question);
  const auto expanded = elementsOf(host.waitForLine(showingElement("Yes")));
  const Element* yes = find(expanded, "Yes");
  ASSERT_TRUE(yes) << host.output();
  EXPECT_EQ(yes->role, "button");
  const std::string after = screenshot(display, session.dir() / "expanded.rgb");
  ASSERT_EQ(after.size(), before.size());
  // The backdrop darkens the host's content below the card.
  const double belowY = originY + kWindowHeight - 20;
  EXPECT_LT(rgb(after, originX + 187, belowY)[0], rgb(before, originX + 187, belowY)[0] * 0.6);

  click(*yes);
  ASSERT_FALSE(host.waitForLine(containing("host: replied Yes ok")).empty()) << host.output();
  auto replies = session.repliesTo(first);
  ASSERT_EQ(replies.size(), 1u) << replies;
  EXPECT_EQ(replies[0]["reply_text"], "Yes");
  ASSERT_FALSE(host.waitForLine(containing("host: hidden")).empty()) << host.output();

  // In the background a push is also a desktop notification, with the category's buttons.
  auto unfocused = fromNow(host, containing("host: focus lost"));
  // Below or above the window, wherever the root window shows.
  EXPECT_TRUE(run(display, "xdotool mousemove --sync 187 " +
                               std::to_string(originY > 0 ? 5 : kScreenHeight - 5)));
  EXPECT_TRUE(run(display, "xdotool windowfocus --sync " + session.rootId().value_or("")));
  ASSERT_FALSE(host.waitForLine(unfocused).empty()) << host.output();
  const int second = session.createPoll("Rain or shine?");
  ASSERT_GT(second, 0);
  ASSERT_TRUE(session.push(second));
  const std::string bubble = notifications.waitForLine(containing("Rain or shine?"));
  ASSERT_FALSE(bubble.empty()) << notifications.output() << host.output();
  const auto note = nlohmann::json::parse(bubble);
  EXPECT_NE(std::find(note["actions"].begin(), note["actions"].end(), "Yes"),
            note["actions"].end())
      << bubble;
  auto answered = fromNow(host, containing("host: replied Yes ok"));
  ASSERT_TRUE(notifications.write("invoke " + std::to_string(note["id"].get<int>()) + " Yes\n"));
  ASSERT_FALSE(host.waitForLine(answered).empty()) << host.output();
  replies = session.repliesTo(second);
  ASSERT_EQ(replies.size(), 1u) << replies;
  EXPECT_EQ(replies[0]["reply_text"], "Yes");
}

INSTANTIATE_TEST_SUITE_P(Hosts, WindowedHostTest, ::testing::ValuesIn(hostsBuilt()),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace quorvia
