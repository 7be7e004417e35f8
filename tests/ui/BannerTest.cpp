// The poll banner: the controller's presenting, expanding, answering and hiding;
// its table's rows, masks and highlights; its model's events; how it is drawn.

#include <fstream>
#include <map>

#include "platform/ApplicationRecords.h"
#include "platform/Bundle.h"
#include "platform/Renderer.h"
#include "platform/ui/TextLayout.h"
#include "support/FakeTransport.h"
#include "support/PlatformTest.h"
#include "ui/BannerScene.h"

namespace quorvia {
namespace {

using platform::Rect;
using platform::RenderedImage;
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
    testing::installKeyWindow();
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
    for (std::size_t i = 0; i < lines.size(); ++i)
      if (lines[i].find("/replies/") != std::string::npos)
        sent.push_back(lines[i] + " " + transport_->bodyText(i));
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
  const auto next = present(pollDict("Fourth", {{"D", ""}}));
  EXPECT_TRUE(next && next != first);
}

// A tap on the card expands it once: the backdrop (its look is the host-window
// test's concern) fades in under the banner while the options show at once.
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
  EXPECT_EQ(backdrop->presentationAlpha(), 0.0);
  advance(0.1);
  EXPECT_TRUE(backdrop->presentationAlpha() > 0 && backdrop->presentationAlpha() < 1);
  advance(0.1);
  EXPECT_EQ(backdrop->presentationAlpha(), 1.0);
  EXPECT_EQ(view->frame(), Rect::make(0, 20, 375, 330));
}

TEST_F(BannerControllerTest, ChoosingAnOptionRepliesThenHidesThenOpensTheLink) {
  // A link, and whether it opens; an invalid one is named in the log.
  const std::pair<std::string, bool> cases[] = {
      {"", false}, {"https://e.com/more", true}, {"not a link", false}, {"ftp://e.com", false}};
  auto& app = platform::Application::sharedApplication();
  for (const auto& [link, opens] : cases) {
    SCOPED_TRACE(link);
    const std::size_t repliesBefore = replies().size();
    auto view = present(pollDict("Q", {{"Yes", link}, {"No", ""}}, 7));
    ASSERT_TRUE(view);
    advance(0.3);
    view->setShowOptions(true);
    log_.clear();
    auto cell = testing::cellAt<platform::TableViewCell>(*view, 1, 0);
    ASSERT_TRUE(cell);
    window()->tap(centerInWindow(*cell));

    const auto sent = replies();
    ASSERT_EQ(sent.size(), repliesBefore + 1);
    EXPECT_EQ(sent.back(), "POST /polls/7/replies/ reply_text=Yes");
    EXPECT_EQ(view->frame().y(), -330);  // hiding started
    const auto opened = platform::ApplicationRecords::openedURLs(app);
    EXPECT_EQ(std::count(opened.begin(), opened.end(), link), opens ? 1 : 0);
    std::vector<std::string> expected = {"QuorviaSDK: User tapped action: Yes",
                                         "QuorviaSDK: Missing user access token!"};
    if (!link.empty())
      expected.push_back(opens ? "QuorviaSDK: User tapped link. Opening: " + link
                               : "QuorviaSDK: User tapped link but link is invalid: " + link);
    EXPECT_EQ(log_.lines(), expected) << "tap, then the reply, then the link";
    advance(0.3);
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

TEST_F(BannerControllerTest, MalformedPollRaisesAndNoBannerExpandsOnlyTheBackdrop) {
  const Value notADictionary = Value::array({1, 2});
  // Raised to the caller, which decides whether a line is written.
  EXPECT_ANY_THROW(banner().presentPollWithPollDict(&notADictionary));
  EXPECT_EQ(banner().presentedPollView(), nullptr);

  // A launch poll that found a banner already shown expands nothing: only the
  // backdrop comes, and stays until a later hide.
  banner().showOptionsForNotificationView(nullptr);
  auto backdrop = window()->viewWithTag(kBackdropTag);
  ASSERT_TRUE(backdrop);
  EXPECT_EQ(window()->subviews().back(), backdrop);
  advance(5);
  EXPECT_EQ(backdrop->superview(), window());
  EXPECT_EQ(backdrop->presentationAlpha(), 1.0);
  banner().hideNotificationView(nullptr);
  advance(0.3);
  EXPECT_EQ(backdrop->superview(), nullptr);
}

// Layout files that are missing, not JSON, or that make an unknown class or
// the wrong row give way to the shipped layouts built into the library: the
// banner looks exactly as shipped, is answered as usual, and its backdrop goes
// with it.
TEST_F(BannerControllerTest, UnusableLayoutFilesGiveWayToTheShippedOnes) {
  using Images = std::pair<RenderedImage, RenderedImage>;
  // The banner rendered collapsed and expanded, then answered "No".
  const auto showAndAnswer = [&]() -> Images {
    auto view = present(pollDict("Lunch?", {{"Yes", ""}, {"No", ""}}, 5));
    if (!view) return {};
    const auto settled = [&](double seconds) {
      advance(seconds);
      window()->layoutIfNeeded();
      drain();  // the rows' deferred masks
      return platform::Renderer::render(*window());
    };
    Images images;
    images.first = settled(0.3);
    window()->tap(centerInWindow(*testing::cellAt<QVNotificationTextCell>(*view, 0, 1)));
    images.second = settled(0.5);
    if (auto no = testing::cellAt<QVNotificationActionCell>(*view, 1, 1))
      window()->tap(centerInWindow(*no));
    advance(0.3);
    EXPECT_EQ(window()->viewWithTag(kBackdropTag), nullptr) << "the backdrop went with the banner";
    EXPECT_EQ(banner().presentedPollView(), nullptr);
    return images;
  };
  const Images shipped = showAndAnswer();
  ASSERT_GT(shipped.first.rgba.size(), 0u);
  ASSERT_NE(shipped.first.rgba, shipped.second.rgba);
  ASSERT_NE(shipped.first.rgba, platform::Renderer::render(*window()).rgba) << "a banner was drawn";

  const auto installed = platform::Bundle::bundleWithIdentifier("com.quorvia.sdk.ios");
  ASSERT_TRUE(installed);
  const auto bundle = dataDir_ / "resources" / "com.quorvia.sdk.ios";
  ::setenv("QUORVIA_RESOURCE_DIR", bundle.parent_path().c_str(), 1);
  // Layout files replaced (an empty text: removed); the others stay as shipped.
  const std::pair<const char*, std::map<std::string, std::string>> cases[] = {
      {"none at all",
       {{"QVNotificationHeaderCell", ""},
        {"QVNotificationTextCell", ""},
        {"QVNotificationActionCell", ""}}},
      {"not JSON", {{"QVNotificationHeaderCell", "{"}}},
      {"an unknown class", {{"QVNotificationActionCell", R"({"class": "Nope"})"}}},
      {"an unknown subview",
       {{"QVNotificationActionCell",
         R"({"class": "QVNotificationActionCell", "subviews": [{"type": "Nope"}]})"}}},
      {"the wrong row", {{"QVNotificationTextCell", R"({"class": "TableViewCell"})"}}},
  };
  for (const auto& [name, replaced] : cases) {
    SCOPED_TRACE(name);
    std::filesystem::remove_all(bundle);
    std::filesystem::create_directories(bundle);
    for (const char* file :
         {"QVNotificationHeaderCell", "QVNotificationTextCell", "QVNotificationActionCell"}) {
      const auto found = replaced.find(file);
      if (found == replaced.end()) {
        std::filesystem::copy_file(installed->bundlePath() / (std::string(file) + ".json"),
                                   bundle / (std::string(file) + ".json"));
      } else if (!found->second.empty()) {
        std::ofstream(bundle / (std::string(file) + ".json")) << found->second;
      }
    }
    log_.clear();
    const Images images = showAndAnswer();
    EXPECT_TRUE(log_.contains("QuorviaSDK: Presenting poll: Lunch?"));
    EXPECT_TRUE(images.first.rgba == shipped.first.rgba) << "collapsed as shipped";
    EXPECT_TRUE(images.second.rgba == shipped.second.rgba) << "expanded as shipped";
  }
  ::unsetenv("QUORVIA_RESOURCE_DIR");
  EXPECT_EQ(replies(),
            std::vector<std::string>(std::size(cases) + 1, "POST /polls/5/replies/ reply_text=No"));
}

// Without a key window the steps run against nothing: the banner has no width
// and is in no window, yet it is the presented one (another poll is dropped)
// until its hide completes; no window is made up for it.
TEST_F(BannerControllerTest, WithoutAKeyWindowTheBannerIsShownInNoWindow) {
  platform::Application::sharedApplication().setKeyWindow(nullptr);
  auto view = present(pollDict("Q", {{"A", ""}}));
  ASSERT_TRUE(view);
  EXPECT_EQ(view->frame(), Rect::make(0, 20, 0, 330));
  EXPECT_EQ(view->superview(), nullptr);
  EXPECT_EQ(platform::keyWindow(), nullptr);
  EXPECT_EQ(present(pollDict("R", {{"B", ""}})), nullptr);
  banner().notificationViewDidPressExpand(view);
  EXPECT_TRUE(view->showOptions());
  EXPECT_EQ(view->superview(), nullptr) << "nor is a backdrop laid anywhere";
  advance(0.2);
  banner().notificationViewDidPressClose(view);
  EXPECT_EQ(replies(), std::vector<std::string>{"POST /polls/42/replies/ reply_text=Dismiss"});
  advance(0.29);
  EXPECT_EQ(banner().presentedPollView(), view);
  advance(0.01);
  EXPECT_EQ(banner().presentedPollView(), nullptr);
}

// A poll of options named "Option i"; option 1 carries a link.
std::shared_ptr<QVModelPoll> optionsPoll(int options) {
  std::vector<std::pair<std::string, std::string>> list;
  for (int i = 0; i < options; ++i)
    list.emplace_back("Option " + std::to_string(i), i == 1 ? "https://example.com/1" : "");
  return QVModelPoll::objectWithDictionary(pollDict("Which?", list));
}
std::shared_ptr<QVNotificationView> optionsBanner(int options) {
  auto view = QVNotificationView::initWithFrame(Rect::make(0, 0, 375, 330));
  view->setPoll(optionsPoll(options));
  return view;
}
using BannerRowsTest = testing::PlatformTest;

// The masks are built on the main queue after the layout pass, from the
// container's bounds; a single option is rounded at the top only, by design. A
// second expansion is refused inside the table and dropped; without options
// nothing is inserted; a poll set again reloads the table.
TEST_F(BannerRowsTest, RowsFollowTheModelWithDeferredMasks) {
  // Options, then each option row's corners and radius.
  const std::tuple<int, std::vector<unsigned>, std::vector<double>> cases[] = {
      {0, {}, {}}, {1, {3}, {10}}, {3, {3, 12, 12}, {10, 0, 10}}};
  for (const auto& [options, corners, radii] : cases) {
    SCOPED_TRACE(options);
    auto view = optionsBanner(options);
    view->setShowOptions(true);
    EXPECT_NO_THROW(view->setShowOptions(true));
    EXPECT_EQ(view->tableView()->numberOfSections(), options ? 2 : 1);
    EXPECT_EQ(view->tableView()->numberOfRowsInSection(1), options);
    drain();
    auto header = testing::cellAt<QVNotificationHeaderCell>(*view, 0, 0);
    auto question = testing::cellAt<QVNotificationTextCell>(*view, 0, 1);
    ASSERT_TRUE(header && question);
    EXPECT_EQ(header->frame(), Rect::make(0, 8, 375, 50));
    EXPECT_EQ(question->customLabel()->text(), "Which?");
    EXPECT_GT(question->frame().height(), 30);
    double top = question->frame().maxY() + 8;
    for (int r = 0; r < options; ++r) {
      SCOPED_TRACE(r);
      auto cell = testing::cellAt<QVNotificationActionCell>(*view, 1, r);
      ASSERT_TRUE(cell);
      EXPECT_EQ(cell->customLabel()->text(), "Option " + std::to_string(r));
      EXPECT_EQ(cell->frame().y(), top);
      top = cell->frame().maxY();
      drain();
      const auto& mask = cell->containerView()->layer().mask();
      ASSERT_TRUE(mask);
      EXPECT_EQ(mask->path().corners, corners[r]);
      EXPECT_EQ(mask->path().cornerRadii.width, radii[r]);
      EXPECT_EQ(mask->frame(), cell->containerView()->bounds());
    }
    const auto& headerMask = header->containerView()->layer().mask();
    ASSERT_TRUE(headerMask && question->containerView()->layer().mask());
    EXPECT_EQ(headerMask->path().corners, 3u);
    EXPECT_EQ(headerMask->frame(), header->containerView()->bounds());
    EXPECT_EQ(question->containerView()->layer().mask()->path().corners, 12u);
    view->setShowOptions(false);
    EXPECT_EQ(view->tableView()->numberOfSections(), 1);
    view->setShowOptions(true);
    view->poll()->setOptions({});
    view->setPoll(view->poll());  // the same poll: the table asks again
    EXPECT_EQ(view->tableView()->numberOfRowsInSection(1), 0);
  }
}

TEST_F(BannerRowsTest, OptionRowHighlightsWhileTouched) {
  auto window = testing::installKeyWindow();
  auto view = optionsBanner(1);
  window->addSubview(view);
  view->setShowOptions(true);
  auto cell = testing::cellAt<QVNotificationActionCell>(*view, 1, 0);
  ASSERT_TRUE(cell);
  const auto colour = [&] { return cell->containerView()->backgroundColor(); };
  EXPECT_EQ(colour(), platform::Color::whiteColor());
  window->touchDown(centerInWindow(*cell));
  EXPECT_EQ(colour(), platform::Color::grayColor());
  window->touchCancel();
  EXPECT_EQ(colour(), platform::Color::whiteColor());
  cell->touchesBegan({});
  cell->touchesEnded({});
  EXPECT_EQ(colour(), platform::Color::whiteColor());
}

// Option rows report their text and link; card rows and rows out of range
// report nothing; the delegate is held weakly.
TEST(NotificationViewModel, SelectionsReachTheDelegateHeldWeakly) {
  using View = std::shared_ptr<QVNotificationView>;
  using Text = std::optional<std::string>;
  struct Recorder final : QVNotificationViewDelegate {
    void notificationViewDidPressExpand(const View&) override {}
    void notificationView(const View&, const Text& identifier, const Text& link) override {
      events.push_back(identifier.value_or("nil") + " " + link.value_or("nil"));
    }
    void notificationViewDidPressClose(const View&) override {}
    std::vector<std::string> events;
  };
  auto delegate = std::make_shared<Recorder>();
  QVNotificationViewModel model;
  model.setPoll(optionsPoll(3));
  model.setDelegate(delegate);
  for (const auto& [section, row] : {std::pair{0, 0}, {0, 1}, {1, 0}, {1, 1}, {1, 7}, {1, -1}})
    model.didSelectRow(section, row);
  EXPECT_EQ(delegate->events,
            (std::vector<std::string>{"Option 0 nil", "Option 1 https://example.com/1"}));
  delegate.reset();
  EXPECT_EQ(model.delegate(), nullptr);
  model.didSelectRow(1, 0);  // without a delegate: nothing, and no crash
  model.notificationTapped();
  model.closeButtonPressed();
}

// The pixel at a point of the window (scale 2).
RenderedImage::Pixel at(const RenderedImage& image, double x, double y) {
  return image.pixel(static_cast<int>(x * 2), static_cast<int>(y * 2));
}
int luminance(RenderedImage::Pixel p) { return (p.r * 3 + p.g * 6 + p.b) / 10; }
bool isWhite(RenderedImage::Pixel p) { return p.r > 250 && p.g > 250 && p.b > 250 && p.a == 255; }

class RenderTest : public testing::PlatformTest {};

// Outside the card's rounded corners the host shows through, just inside them
// the card is white; expanded, the backdrop dims the host but not the options.
TEST_F(RenderTest, CardHasRoundedCornersOverTheHostAndTheBackdropDimsIt) {
  auto view = testing::makeBannerScene(*loop_, false);
  ASSERT_TRUE(view);
  auto window = platform::keyWindow();
  const RenderedImage image = platform::Renderer::render(*window);
  ASSERT_EQ(std::pair(image.width, image.height), std::pair(750, 1334));
  auto question = testing::cellAt<QVNotificationTextCell>(*view, 0, 1);
  ASSERT_TRUE(question);
  const double left = 10, right = 365, top = 20 + 8;
  const double bottom = 20 + question->frame().maxY();
  for (double x : {left + 0.5, right - 0.5})
    for (double y : {top + 0.5, bottom - 0.5})
      EXPECT_FALSE(isWhite(at(image, x, y))) << x << "," << y;
  EXPECT_TRUE(isWhite(at(image, left + 10, top + 10)));
  EXPECT_TRUE(isWhite(at(image, 187, top + 45)));  // between header and question: one card
  const auto host = at(image, 187, 655);           // far below the banner: the host, as it is
  EXPECT_NEAR(host.r, 238, 2);

  sdk::SDKState::shared().banner->notificationViewDidPressExpand(view);
  advance(0.2);
  window->layoutIfNeeded();
  drain();
  const RenderedImage expanded = platform::Renderer::render(*window);
  const auto dimmed = at(expanded, 187, 655);
  EXPECT_LT(luminance(dimmed), luminance(host) * 6 / 10);
  EXPECT_GT(luminance(dimmed), 20);  // dimmed, not black
  auto option = testing::cellAt<QVNotificationActionCell>(*view, 1, 0);
  ASSERT_TRUE(option);
  EXPECT_TRUE(isWhite(at(expanded, 30, 20 + option->frame().y() + option->frame().height() / 2)));
}

// A question of one long word once took Pango time quadratic in its length
// (26 s for 100,000 letters). At most 2000 characters are laid out, and a
// long unbroken run gets a break between its characters.
TEST_F(RenderTest, LabelTextIsBoundedAndLongWordsWrapByCharacter) {
  // `n` copies of `unit`, with a break between each two when `breaks`.
  const auto run = [](const std::string& unit, int n, bool breaks = false) {
    std::string out = unit;
    for (int i = 1; i < n; ++i) out += (breaks ? "\u200B" : "") + unit;
    return out;
  };
  const std::tuple<const char*, std::string, std::string> cases[] = {
      {"words are left alone", "Do you like polls? Yes", "Do you like polls? Yes"},
      {"a run of 32 is a word", run("a", 32) + " b", run("a", 32) + " b"},
      {"a run of 33 breaks everywhere", run("a", 33) + " b", run("a", 33, true) + " b"},
      {"never inside a character", run("e\u0301", 40), run("e\u0301", 40, true)},
      {"cut at 2000 characters", run("x", 1500) + " " + run("y", 600),
       run("x", 1500, true) + " " + run("y", 499, true) + "\u2026"},
      {"bytes that are not UTF-8", "a\xff b", "a\uFFFD b"},
  };
  for (const auto& [name, text, laidOut] : cases)
    EXPECT_EQ(platform::detail::layoutText(text), laidOut) << name;

  const auto height = [](std::size_t letters) {
    return platform::measureTextHeight(std::string(letters, 'w'), "DejaVu Sans 17", 300);
  };
  const double line = height(1);
  EXPECT_NEAR(height(100), 6 * line, line) << "wrapped by character into full lines";
  EXPECT_EQ(height(100000), height(2000)) << "only what can be shown is laid out";
}

}  // namespace
}  // namespace quorvia
