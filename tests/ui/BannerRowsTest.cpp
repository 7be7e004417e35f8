// The banner's table: its rows from the layout files, their deferred corner
// masks and highlights, and the events its model reports.

#include "support/PlatformTest.h"
#include "ui/BannerScene.h"

namespace quorvia {
namespace {

using platform::Rect;

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
// container's bounds; a single option is rounded at the top only, by design.
TEST_F(BannerRowsTest, RowsFollowTheModelWithDeferredMasks) {
  struct Case {
    int options;
    std::vector<unsigned> corners;
    std::vector<double> radii;
  };
  const Case cases[] = {{1, {3}, {10}}, {3, {3, 12, 12}, {10, 0, 10}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.options);
    auto view = banner(c.options);
    ASSERT_TRUE(view->isLoaded());
    view->setShowOptions(true);
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

// A second expansion is refused inside the table and dropped; without options
// nothing is inserted; a new poll, even the same one, reloads the table.
TEST_F(BannerRowsTest, ExpandingTwiceOrWithoutOptionsKeepsTheTableConsistent) {
  for (const int options : {0, 2}) {
    SCOPED_TRACE(options);
    auto view = banner(options);
    view->setShowOptions(true);
    EXPECT_NO_THROW(view->setShowOptions(true));
    EXPECT_TRUE(view->showOptions());
    EXPECT_EQ(view->tableView()->numberOfSections(), options ? 2 : 1);
    EXPECT_EQ(view->tableView()->numberOfRowsInSection(1), options);
    view->setShowOptions(false);
    EXPECT_EQ(view->tableView()->numberOfSections(), 1);
  }
  auto view = banner(2);
  view->setShowOptions(true);
  auto poll = view->poll();
  poll->setOptions({});
  view->setPoll(poll);
  EXPECT_EQ(view->tableView()->numberOfRowsInSection(1), 0);
}

// Option rows report their text and link; card rows and rows out of range
// report nothing; the delegate is held weakly.
TEST(NotificationViewModel, EventsReachTheDelegateHeldWeakly) {
  struct Recorder final : QVNotificationViewDelegate {
    void notificationViewDidPressExpand(const std::shared_ptr<QVNotificationView>&) override {
      events.push_back("expand");
    }
    void notificationView(const std::shared_ptr<QVNotificationView>&,
                          const std::optional<std::string>& identifier,
                          const std::optional<std::string>& link) override {
      events.push_back(identifier.value_or("nil") + " " + link.value_or("nil"));
    }
    void notificationViewDidPressClose(const std::shared_ptr<QVNotificationView>&) override {
      events.push_back("close");
    }
    std::vector<std::string> events;
  };
  auto delegate = std::make_shared<Recorder>();
  QVNotificationViewModel model;
  model.setPoll(QVModelPoll::objectWithDictionary(testing::pollDict(
      "Which?", {{"Option 0", ""}, {"Option 1", "https://example.com/1"}, {"Option 2", ""}})));
  model.notificationTapped();  // no delegate yet: nothing
  model.setDelegate(delegate);
  for (const auto& [section, row] : {std::pair{0, 0}, {0, 1}, {1, 0}, {1, 1}, {1, 7}, {1, -1}})
    model.didSelectRow(section, row);
  model.notificationTapped();
  model.closeButtonPressed();
  EXPECT_EQ(delegate->events,
            (std::vector<std::string>{"Option 0 nil", "Option 1 https://example.com/1", "expand",
                                      "close"}));
  delegate.reset();
  EXPECT_EQ(model.delegate(), nullptr);
  EXPECT_NO_THROW(model.didSelectRow(1, 0));
}

}  // namespace
}  // namespace quorvia
