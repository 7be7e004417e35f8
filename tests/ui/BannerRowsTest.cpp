// The banner's table: its rows from the layout files, their deferred corner
// masks and highlights, the events its model reports, and how it is drawn.

#include "platform/Renderer.h"
#include "platform/ui/TextLayout.h"
#include "support/PlatformTest.h"
#include "ui/BannerScene.h"

namespace quorvia {
namespace {

using platform::Rect;
using platform::RenderedImage;

// The pixel at a point of the window (scale 2).
RenderedImage::Pixel at(const RenderedImage& image, double x, double y) {
  return image.pixel(static_cast<int>(x * 2), static_cast<int>(y * 2));
}
int luminance(RenderedImage::Pixel p) { return (p.r * 3 + p.g * 6 + p.b) / 10; }
bool isWhite(RenderedImage::Pixel p) { return p.r > 250 && p.g > 250 && p.b > 250 && p.a == 255; }

class BannerRowsTest : public testing::PlatformTest {
 protected:
  // Option 1 of the poll carries a link.
  std::shared_ptr<QVNotificationView> banner(int options) {
    std::vector<std::pair<std::string, std::string>> list;
    for (int i = 0; i < options; ++i)
      list.emplace_back("Option " + std::to_string(i), i == 1 ? "https://example.com/1" : "");
    auto view = QVNotificationView::initWithFrame(Rect::make(0, 0, 375, 330));
    view->setPoll(QVModelPoll::objectWithDictionary(testing::pollDict("Which?", list)));
    return view;
  }
};

// The masks are built on the main queue after the layout pass, from the
// container's bounds; a single option is rounded at the top only, by design. A
// second expansion is refused inside the table and dropped; without options
// nothing is inserted.
TEST_F(BannerRowsTest, RowsFollowTheModelWithDeferredMasks) {
  struct Case {
    int options;
    std::vector<unsigned> corners;
    std::vector<double> radii;
  };
  const Case cases[] = {{0, {}, {}}, {1, {3}, {10}}, {3, {3, 12, 12}, {10, 0, 10}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.options);
    auto view = banner(c.options);
    ASSERT_TRUE(view->isLoaded());
    view->setShowOptions(true);
    EXPECT_NO_THROW(view->setShowOptions(true));
    EXPECT_EQ(view->tableView()->numberOfSections(), c.options ? 2 : 1);
    EXPECT_EQ(view->tableView()->numberOfRowsInSection(1), c.options);
    drain();
    auto header = testing::cellAt<QVNotificationHeaderCell>(*view, 0, 0);
    auto question = testing::cellAt<QVNotificationTextCell>(*view, 0, 1);
    ASSERT_TRUE(header && question);
    EXPECT_EQ(header->frame(), Rect::make(0, 8, 375, 50));
    EXPECT_EQ(question->customLabel()->text(), "Which?");
    EXPECT_GT(question->frame().height(), 30);
    double top = question->frame().maxY() + 8;
    for (int r = 0; r < c.options; ++r) {
      SCOPED_TRACE(r);
      auto cell = testing::cellAt<QVNotificationActionCell>(*view, 1, r);
      ASSERT_TRUE(cell);
      EXPECT_EQ(cell->customLabel()->text(), "Option " + std::to_string(r));
      EXPECT_EQ(cell->frame().y(), top);
      top = cell->frame().maxY();
      drain();
      const auto& mask = cell->containerView()->layer().mask();
      ASSERT_TRUE(mask);
      EXPECT_EQ(mask->path().corners, c.corners[r]);
      EXPECT_EQ(mask->path().cornerRadii.width, c.radii[r]);
      EXPECT_EQ(mask->frame(), cell->containerView()->bounds());
    }
    const auto& headerMask = header->containerView()->layer().mask();
    ASSERT_TRUE(headerMask && question->containerView()->layer().mask());
    EXPECT_EQ(headerMask->path().corners, 3u);
    EXPECT_EQ(headerMask->frame(), header->containerView()->bounds());
    EXPECT_EQ(question->containerView()->layer().mask()->path().corners, 12u);
    view->setShowOptions(false);
    EXPECT_EQ(view->tableView()->numberOfSections(), 1);
  }
}

TEST_F(BannerRowsTest, OptionRowHighlightsWhileTouched) {
  auto window = platform::keyWindow();
  auto view = banner(1);
  window->addSubview(view);
  view->setShowOptions(true);
  auto cell = testing::cellAt<QVNotificationActionCell>(*view, 1, 0);
  ASSERT_TRUE(cell);
  const auto colour = [&] { return cell->containerView()->backgroundColor(); };
  EXPECT_EQ(colour(), platform::Color::whiteColor());
  window->touchDown(testing::centerInWindow(*cell));
  EXPECT_EQ(colour(), platform::Color::grayColor());
  window->touchCancel();
  EXPECT_EQ(colour(), platform::Color::whiteColor());
  cell->touchesBegan({});
  cell->touchesEnded({});
  EXPECT_EQ(colour(), platform::Color::whiteColor());
}

TEST_F(BannerRowsTest, SetPollReloadsEvenForTheSamePoll) {
  auto view = banner(2);
  view->setShowOptions(true);
  auto poll = view->poll();
  poll->setOptions({});
  view->setPoll(poll);
  EXPECT_EQ(view->tableView()->numberOfRowsInSection(1), 0);
}

// Option rows report their text and link; card rows and rows out of range
// report nothing; the delegate is held weakly.
TEST(NotificationViewModel, SelectionsReachTheDelegateHeldWeakly) {
  struct Recorder final : QVNotificationViewDelegate {
    void notificationViewDidPressExpand(const std::shared_ptr<QVNotificationView>&) override {}
    void notificationView(const std::shared_ptr<QVNotificationView>&,
                          const std::optional<std::string>& identifier,
                          const std::optional<std::string>& link) override {
      events.push_back(identifier.value_or("nil") + " " + link.value_or("nil"));
    }
    void notificationViewDidPressClose(const std::shared_ptr<QVNotificationView>&) override {}
    std::vector<std::string> events;
  };
  auto delegate = std::make_shared<Recorder>();
  QVNotificationViewModel model;
  model.setPoll(QVModelPoll::objectWithDictionary(testing::pollDict(
      "Which?", {{"Option 0", ""}, {"Option 1", "https://example.com/1"}, {"Option 2", ""}})));
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

class RenderTest : public testing::PlatformTest {};

// Outside the card's rounded corners the host shows through, just inside them
// the card is white; expanded, the backdrop dims the host but not the options.
TEST_F(RenderTest, CardHasRoundedCornersOverTheHostAndTheBackdropDimsIt) {
  auto view = testing::makeBannerScene(*loop_, false);
  ASSERT_TRUE(view);
  auto window = platform::keyWindow();
  const RenderedImage image = platform::Renderer::render(*window);
  ASSERT_EQ(image.width, 750);
  ASSERT_EQ(image.height, 1334);
  auto question = testing::cellAt<QVNotificationTextCell>(*view, 0, 1);
  ASSERT_TRUE(question);
  const double left = 10, right = 365, top = 20 + 8;
  const double bottom = 20 + question->frame().maxY();
  for (auto [x, y] : {std::pair{left + 0.5, top + 0.5},
                      {right - 0.5, top + 0.5},
                      {left + 0.5, bottom - 0.5},
                      {right - 0.5, bottom - 0.5}}) {
    SCOPED_TRACE(::testing::Message() << x << "," << y);
    EXPECT_FALSE(isWhite(at(image, x, y)));
  }
  EXPECT_TRUE(isWhite(at(image, left + 10, top + 10)));
  EXPECT_TRUE(isWhite(at(image, right - 10, bottom - 10)));
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
  const std::string zwsp = "\u200B";
  const auto broken = [&](const std::string& run) {
    std::string out;
    for (char c : run) out += (out.empty() ? "" : zwsp) + std::string(1, c);
    return out;
  };
  const std::string thirtyTwo(32, 'a');
  const std::string accented = "e\u0301";  // a letter and its combining accent
  std::string accentedRun, accentedBroken;
  for (int i = 0; i < 40; ++i) {
    accentedRun += accented;
    accentedBroken += (i ? zwsp : "") + accented;
  }
  struct Case {
    const char* name;
    std::string text;
    std::string laidOut;
  };
  const Case cases[] = {
      {"words are left alone", "Do you like polls? Yes", "Do you like polls? Yes"},
      {"a run of 32 is a word", thirtyTwo + " b", thirtyTwo + " b"},
      {"a run of 33 breaks everywhere", thirtyTwo + "a b", broken(thirtyTwo + "a") + " b"},
      {"never inside a character", accentedRun, accentedBroken},
      {"cut at 2000 characters", std::string(1500, 'x').append(" ").append(600, 'y'),
       broken(std::string(1500, 'x'))
           .append(" ")
           .append(broken(std::string(499, 'y')))
           .append("\u2026")},
      {"bytes that are not UTF-8", "a\xff b", "a\uFFFD b"},
  };
  for (const auto& c : cases) EXPECT_EQ(platform::detail::layoutText(c.text), c.laidOut) << c.name;

  const auto height = [](std::size_t letters) {
    return platform::measureTextHeight(std::string(letters, 'w'), "DejaVu Sans 17", 300);
  };
  const double line = height(1);
  EXPECT_NEAR(height(100), 6 * line, line) << "wrapped by character into full lines";
  EXPECT_EQ(height(100000), height(2000)) << "only what can be shown is laid out";
}

}  // namespace
}  // namespace quorvia
