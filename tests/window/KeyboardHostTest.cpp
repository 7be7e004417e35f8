// Each example host answered with the keyboard alone, in a real X window: xdotool presses the
// keys and the devserver records what they answered. F6 enters the banner, Tab reaches the card,
// Enter opens it, Down reaches an option and Enter answers it; on the next poll F6 and Escape
// dismiss it. Typing goes to the host's text field all along but while the open banner holds
// the keyboard. There is no accessibility bus here: the SDK says so once and works on.
#include "quorvia/platform/Geometry.h"
#include "window/HostSession.h"

namespace quorvia {
namespace {

using namespace testing;

// Where each host has its text field, in the window (above where the banner comes).
platform::Point textField(const Host& host) {
  const std::string name = host.name;
  if (name == "sdl") return {187, 94};
  if (name == "gtk4") return {187, 30};
  return {187, 22};
}

class KeyboardHostTest : public ::testing::TestWithParam<Host> {};

TEST_P(KeyboardHostTest, PollIsAnsweredAndDismissedWithKeysAlone) {
  HostSession session(GetParam());
  ASSERT_TRUE(session.ready());
  ASSERT_TRUE(session.start()) << session.host().output();
  ChildProcess& host = session.host();
  double originX = 0, originY = 0;
  ASSERT_TRUE(session.windowOrigin(originX, originY));
  ASSERT_TRUE(session.focusWindow()) << host.output();
  const platform::Point field = textField(GetParam());
  ASSERT_TRUE(run(session.display(), "xdotool mousemove --sync " +
                                         std::to_string(originX + field.x) + " " +
                                         std::to_string(originY + field.y) + " click 1"));
  ASSERT_TRUE(session.key("a"));
  ASSERT_FALSE(host.waitForLine(containing("host: typed a")).empty()) << host.output();
  // The pointer out of the way of the banner: a hover is no key.
  ASSERT_TRUE(run(session.display(),
                  "xdotool mousemove --sync 187 " + std::to_string(originY + kWindowHeight - 10)));

  const int first = session.createPoll("Tea or coffee?");
  ASSERT_GT(first, 0);
  ASSERT_TRUE(session.push(first));
  ASSERT_FALSE(host.waitForLine([](const std::string& l) {
                     const Element* poll = find(elementsOf(l), "Poll");
                     return poll && poll->y == 20;
                   })
                   .empty())
      << host.output();
  // A shown banner leaves the keyboard to the host until F6.
  ASSERT_TRUE(session.key("b"));
  ASSERT_FALSE(host.waitForLine(containing("host: typed ab")).empty()) << host.output();

  const auto step = [&](const std::string& keys, auto match, const char* what) {
    auto after = fromNow(host, match);
    EXPECT_TRUE(session.key(keys)) << keys;
    const std::string line = host.waitForLine(after);
    EXPECT_FALSE(line.empty()) << what << " after " << keys << "\n" << host.output();
    return elementsOf(line);
  };
  step("F6", focusedElement("Close"), "focus on the close control");
  const auto onCard = step("Tab", focusedElement("Tea or coffee?"), "focus on the card");
  // Letters still type while the collapsed banner has focus.
  ASSERT_TRUE(session.key("c"));
  ASSERT_FALSE(host.waitForLine(containing("host: typed abc")).empty()) << host.output();

  // The ring around the card, in the banner's accent, on the card's white.
  const Element* question = find(onCard, "Tea or coffee?");
  ASSERT_TRUE(question);
  const std::string shot = screenshot(session.display(), session.dir() / "focus.rgb");
  EXPECT_EQ(rgb(shot, originX + 11, originY + question->y + question->h / 2),
            (std::array<int, 3>{0x5B, 0x5B, 0xD6}));
  EXPECT_EQ(rgb(shot, originX + 16, originY + question->y + question->h / 2),
            (std::array<int, 3>{255, 255, 255}));

  step("Return", showingElement("Yes"), "the options");
  // Open, the banner holds the keyboard: this letter types nothing.
  ASSERT_TRUE(session.key("d"));
  step("Down", focusedElement("Yes"), "focus on the first option");
  // The window as it looks once the screen has settled, kept beside the test for the guide.
  screenshot(session.display(), session.dir() / "option.rgb");
  const std::string picture = std::string("window-focus-ring-") + GetParam().name + ".png";
  EXPECT_TRUE(run(session.display(), "import -window root -crop " + std::to_string(kScreenWidth) +
                                         "x" + std::to_string(kWindowHeight) + "+" +
                                         std::to_string(static_cast<int>(originX)) + "+" +
                                         std::to_string(static_cast<int>(originY)) + " " +
                                         (std::filesystem::current_path() / picture).string()));

  auto replied = fromNow(host, containing("host: replied Yes ok"));
  ASSERT_TRUE(session.key("Return"));
  ASSERT_FALSE(host.waitForLine(replied).empty()) << host.output();
  auto replies = session.repliesTo(first);
  ASSERT_EQ(replies.size(), 1u) << replies;
  EXPECT_EQ(replies[0]["reply_text"], "Yes");
  ASSERT_FALSE(host.waitForLine(containing("host: hidden")).empty()) << host.output();
  EXPECT_EQ(host.output().find("host: typed abcd"), std::string::npos);

  const int second = session.createPoll("Rain or shine?");
  ASSERT_GT(second, 0);
  ASSERT_TRUE(session.push(second));
  ASSERT_FALSE(host.waitForLine([](const std::string& l) {
                     const Element* q = find(elementsOf(l), "Rain or shine?");
                     return q && q->showing && find(elementsOf(l), "Poll")->y == 20;
                   })
                   .empty())
      << host.output();
  step("F6", focusedElement("Close"), "focus on the close control");
  auto dismissed = fromNow(host, containing("host: replied Dismiss ok"));
  auto hidden = fromNow(host, containing("host: hidden"));
  ASSERT_TRUE(session.key("Escape"));
  ASSERT_FALSE(host.waitForLine(dismissed).empty()) << host.output();
  replies = session.repliesTo(second);
  ASSERT_EQ(replies.size(), 1u) << replies;
  EXPECT_EQ(replies[0]["reply_text"], "Dismiss");
  // Gone, the banner leaves every key to the host again.
  ASSERT_FALSE(host.waitForLine(hidden).empty()) << host.output();
  auto typed = fromNow(host, containing("host: typed abce"));
  ASSERT_TRUE(session.key("e"));
  EXPECT_FALSE(host.waitForLine(typed).empty()) << host.output();
  // The test's session bus has no accessibility bus: the SDK said so once, and that was all
  // (in Qt's tree the banner is Qt's to publish).
  std::size_t said = 0;
  for (const std::string& line : host.lines())
    said += line.find("screen readers do not see the banner") != std::string::npos;
  EXPECT_EQ(said, GetParam().toolkitPublishesBanner ? 0u : 1u) << host.output();
}

INSTANTIATE_TEST_SUITE_P(Hosts, KeyboardHostTest, ::testing::ValuesIn(hostsBuilt()),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace quorvia
