// The banner controller: presenting, expanding, replying and hiding the poll
// banner in the key window.

#include "quorvia/platform/Application.h"
#include "support/FakeTransport.h"
#include "support/PlatformTest.h"
#include "ui/BannerScene.h"

namespace quorvia {
namespace {

using platform::Rect;
using platform::Value;
using testing::centerInWindow;
using testing::pollDict;

// The simulator and the desktop host find the backdrop by this tag too.
constexpr int kBackdropTag = 234555;

class BannerControllerTest : public testing::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    transport_ = testing::FakeTransport::install();
  }
  BannerController& banner() { return *sdk::SDKState::shared().banner; }
  std::shared_ptr<QVNotificationView> present(const Value& poll) {
    return banner().presentPollWithPollDict(&poll);
  }
  std::shared_ptr<platform::Window> window() { return platform::keyWindow(); }
  // "path body" of each reply request sent so far.
  std::vector<std::string> replies() const {
    std::vector<std::string> sent;
    const auto lines = transport_->requestLines();
    for (std::size_t i = 0; i < lines.size(); ++i) {
      if (lines[i].find("/replies/") != std::string::npos)
        sent.push_back(lines[i] + " " + transport_->bodyText(i));
    }
    return sent;
  }
  std::shared_ptr<testing::FakeTransport> transport_;
};

TEST_F(BannerControllerTest, PresentSlidesTheBannerDownOverThreeTenthsAtTheWindowsWidth) {
  auto w = platform::View::make<platform::Window>(Rect::make(0, 0, 414, 896));
  platform::Application::sharedApplication().setKeyWindow(w);
  auto view = present(pollDict("Coffee?", {{"Yes", ""}, {"No", ""}}));
  ASSERT_TRUE(view);
  EXPECT_EQ(view->frame(), Rect::make(0, 20, 414, 330));  // the model value at once
  EXPECT_EQ(view->presentationFrame().y(), -430);
  EXPECT_EQ(view->superview(), w);
  EXPECT_EQ(banner().presentedPollView(), view);
  EXPECT_EQ(log_.lines(), std::vector<std::string>{"QuorviaSDK: Presenting poll: Coffee?"});
  advance(0.15);
  EXPECT_NEAR(view->presentationFrame().y(), (-430 + 20) / 2.0, 1.0);  // ease-in-out midpoint
  advance(0.15);
  EXPECT_EQ(view->presentationFrame(), Rect::make(0, 20, 414, 330));
}

// One banner at a time, until the slide out ends; the hidden banner stays in
// the window above its top edge, and its backdrop goes with the fade.
TEST_F(BannerControllerTest, OneBannerAtATimeUntilTheSlideOutEnds) {
  auto first = present(pollDict("First", {{"A", ""}}));
  ASSERT_TRUE(first);
  log_.clear();
  EXPECT_EQ(present(pollDict("Second", {{"B", ""}})), nullptr);
  EXPECT_TRUE(log_.lines().empty());
  advance(0.3);
  banner().notificationViewDidPressExpand(first);
  advance(0.2);
  auto backdrop = window()->viewWithTag(kBackdropTag);
  ASSERT_TRUE(backdrop);
  banner().hideNotificationView(first);
  advance(0.2);
  EXPECT_EQ(backdrop->superview(), nullptr);
  advance(0.09);
  EXPECT_EQ(present(pollDict("Third", {{"C", ""}})), nullptr);
  EXPECT_EQ(banner().presentedPollView(), first);
  advance(0.01);
  EXPECT_EQ(banner().presentedPollView(), nullptr);
  EXPECT_EQ(first->superview(), window());
  EXPECT_EQ(first->presentationFrame(), Rect::make(0, -330, 375, 330));
  auto next = present(pollDict("Fourth", {{"D", ""}}));
  ASSERT_TRUE(next);
  EXPECT_NE(next, first);
}

// A tap on the card expands it once: the backdrop (what it shows is the
// host-window test's concern) fades in under the banner while the options
// show at once.
TEST_F(BannerControllerTest, TappingTheCardLaysABackdropUnderTheBanner) {
  auto view = present(pollDict("Q", {{"A", ""}, {"B", ""}}));
  ASSERT_TRUE(view);
  advance(0.3);
  log_.clear();
  window()->tap(centerInWindow(*testing::cellAt<QVNotificationTextCell>(*view, 0, 1)));
  EXPECT_EQ(log_.count("QuorviaSDK: User expanded poll: Q"), 1);
  auto backdrop = window()->viewWithTag(kBackdropTag);
  ASSERT_TRUE(backdrop);
  EXPECT_EQ(window()->subviews(), (std::vector<std::shared_ptr<platform::View>>{backdrop, view}));
  EXPECT_EQ(backdrop->frame(), window()->bounds());
  EXPECT_TRUE(view->showOptions());  // at once, not after the fade
  EXPECT_EQ(view->tableView()->numberOfRowsInSection(1), 2);
  EXPECT_EQ(backdrop->presentationAlpha(), 0.0);
  advance(0.1);
  EXPECT_GT(backdrop->presentationAlpha(), 0.0);
  EXPECT_LT(backdrop->presentationAlpha(), 1.0);
  advance(0.1);
  EXPECT_EQ(backdrop->presentationAlpha(), 1.0);
  EXPECT_EQ(view->frame(), Rect::make(0, 20, 375, 330));
}

TEST_F(BannerControllerTest, ChoosingAnOptionRepliesThenHidesThenOpensTheLink) {
  const std::tuple<const char*, bool, const char*> cases[] = {
      {"", false, nullptr},
      {"https://example.com/more", true,
       "QuorviaSDK: User tapped link. Opening: https://example.com/more"},
      {"not a link", false, "QuorviaSDK: User tapped link but link is invalid: not a link"},
      {"ftp://example.com", false,
       "QuorviaSDK: User tapped link but link is invalid: ftp://example.com"},
  };
  auto& app = platform::Application::sharedApplication();
  for (const auto& [link, opens, linkLine] : cases) {
    SCOPED_TRACE(link);
    const std::size_t repliesBefore = replies().size();
    auto view = present(pollDict("Q", {{"Yes", link}, {"No", ""}}, 7));
    ASSERT_TRUE(view);
    advance(0.3);
    view->setShowOptions(true);
    log_.clear();
    const auto openedBefore = app.openedURLs().size();
    auto cell = testing::cellAt<platform::TableViewCell>(*view, 1, 0);
    ASSERT_TRUE(cell);
    window()->tap(centerInWindow(*cell));

    const auto sent = replies();
    ASSERT_EQ(sent.size(), repliesBefore + 1);
    EXPECT_EQ(sent.back(), "POST /polls/7/replies/ reply_text=Yes");
    EXPECT_EQ(view->frame().y(), -330);  // hiding started
    EXPECT_EQ(app.openedURLs().size() - openedBefore, opens ? 1u : 0u);
    if (opens) {
      EXPECT_EQ(app.openedURLs().back(), link);
    }
    std::vector<std::string> expected = {"QuorviaSDK: User tapped action: Yes",
                                         "QuorviaSDK: Missing user access token!"};
    if (linkLine) expected.push_back(linkLine);
    EXPECT_EQ(log_.lines(), expected) << "tap, then the reply, then the link";
    advance(0.3);
    EXPECT_EQ(banner().presentedPollView(), nullptr);
  }
}

TEST_F(BannerControllerTest, CloseSendsDismissAndHides) {
  auto view = present(pollDict("Lunch?", {{"Yes", ""}}, 9));
  ASSERT_TRUE(view);
  advance(0.3);
  auto header = testing::cellAt<QVNotificationHeaderCell>(*view, 0, 0);
  ASSERT_TRUE(header);
  window()->tap(centerInWindow(*header->closeButton()));
  EXPECT_TRUE(log_.contains("QuorviaSDK: User dismissed poll: Lunch?"));
  EXPECT_EQ(replies(), std::vector<std::string>{"POST /polls/9/replies/ reply_text=Dismiss"});
  EXPECT_FALSE(view->showOptions());  // the close button does not expand
  advance(0.3);
  EXPECT_EQ(banner().presentedPollView(), nullptr);
}

TEST_F(BannerControllerTest, MalformedPollMissingLayoutOrNoBannerGivesNoBanner) {
  const Value notADictionary = Value::array({1, 2});
  // Raised to the caller, which decides whether a line is written.
  EXPECT_ANY_THROW(banner().presentPollWithPollDict(&notADictionary));
  EXPECT_EQ(banner().presentedPollView(), nullptr);

  auto empty = testing::makeTempDirectory("quorvia-res-");
  std::filesystem::create_directory(empty / "com.quorvia.sdk.ios");
  ::setenv("QUORVIA_RESOURCE_DIR", empty.c_str(), 1);
  EXPECT_EQ(present(pollDict("Q", {{"A", ""}})), nullptr);
  EXPECT_EQ(banner().presentedPollView(), nullptr);
  EXPECT_TRUE(log_.contains(
      "QuorviaSDK: Could not load the poll banner's layout files; the poll is not shown."));
  advance(1);  // no deferred work may touch the half-made banner
  ::unsetenv("QUORVIA_RESOURCE_DIR");
  std::filesystem::remove_all(empty);

  // A launch poll that found a banner already shown expands nothing: only the
  // backdrop comes, and stays until a later hide.
  banner().showOptionsForNotificationView(nullptr);
  auto backdrop = window()->viewWithTag(kBackdropTag);
  ASSERT_TRUE(backdrop);
  EXPECT_EQ(window()->subviews().back(), backdrop);
  advance(5);
  EXPECT_EQ(backdrop->superview(), window());
  EXPECT_EQ(backdrop->presentationAlpha(), 1.0);
}

}  // namespace
}  // namespace quorvia
