// The banner's table: its rows, their deferred corner masks and highlights,
// and the layout files they come from.

#include "platform/Bundle.h"
#include "quorvia/platform/Error.h"
#include "quorvia/platform/Window.h"
#include "support/PlatformTest.h"
#include "ui/BannerTestSupport.h"
#include "ui/QVNotificationActionCell.h"
#include "ui/QVNotificationHeaderCell.h"
#include "ui/QVNotificationTextCell.h"
#include "ui/QVNotificationView.h"

namespace quorvia {
namespace {

using platform::Rect;

class BannerRowsTest : public testing::PlatformTest {
 protected:
  std::shared_ptr<QVNotificationView> banner(int options) {
    std::vector<std::pair<std::string, std::string>> list;
    for (int i = 0; i < options; ++i) list.emplace_back("Option " + std::to_string(i), "");
    auto view = QVNotificationView::initWithFrame(Rect::make(0, 0, 375, 330));
    view->setPoll(QVModelPoll::objectWithDictionary(testing::pollDict("Which?", list)));
    return view;
  }
};

TEST_F(BannerRowsTest, TableFollowsTheModelWithDeferredMasks) {
  auto view = banner(3);
  ASSERT_TRUE(view->isLoaded());
  view->setShowOptions(true);
  drain();
  auto header = testing::cellAt<QVNotificationHeaderCell>(*view, 0, 0);
  auto question = testing::cellAt<QVNotificationTextCell>(*view, 0, 1);
  ASSERT_TRUE(header && question);
  EXPECT_EQ(header->frame(), Rect::make(0, 8, 375, 50));
  EXPECT_EQ(question->customLabel()->text(), "Which?");
  EXPECT_GT(question->frame().height(), 30);
  const double optionsTop = question->frame().maxY() + 8;
  const unsigned corners[] = {3, 12, 12};
  const double radii[] = {10, 0, 10};
  for (int r = 0; r < 3; ++r) {
    SCOPED_TRACE(r);
    auto cell = testing::cellAt<QVNotificationActionCell>(*view, 1, r);
    ASSERT_TRUE(cell);
    EXPECT_EQ(cell->customLabel()->text(), "Option " + std::to_string(r));
    if (r == 0) {
      EXPECT_EQ(cell->frame().y(), optionsTop);
    }
    drain();
    const auto& mask = cell->containerView()->layer().mask();
    ASSERT_TRUE(mask);
    EXPECT_EQ(mask->path().corners, corners[r]);
    EXPECT_EQ(mask->path().cornerRadii.width, radii[r]);
    EXPECT_EQ(mask->frame(), cell->containerView()->bounds());
  }
  ASSERT_TRUE(header->containerView()->layer().mask());
  EXPECT_EQ(header->containerView()->layer().mask()->path().corners, 3u);
  EXPECT_EQ(question->containerView()->layer().mask()->path().corners, 12u);
  EXPECT_EQ(header->containerView()->layer().mask()->frame(), header->containerView()->bounds());
}

TEST_F(BannerRowsTest, MaskIsBuiltLaterAndTheLastSetterWins) {
  auto view = banner(2);
  view->setShowOptions(true);
  auto cell = testing::cellAt<QVNotificationActionCell>(*view, 1, 0);
  ASSERT_TRUE(cell);
  drain();
  cell->setBottomMask();
  cell->setNoMask();
  EXPECT_EQ(cell->containerView()->layer().mask()->path().corners, 3u);  // not yet rebuilt
  drain();
  const auto& mask = cell->containerView()->layer().mask();
  EXPECT_EQ(mask->path().cornerRadii.width, 0.0);
  EXPECT_EQ(mask->path().corners, 12u);
  EXPECT_EQ(mask->path().rect, cell->containerView()->bounds());
}

TEST_F(BannerRowsTest, OptionRowHighlightsWhileTouched) {
  auto window = platform::keyWindow();
  auto view = banner(1);
  window->addSubview(view);
  view->setShowOptions(true);
  auto cell = testing::cellAt<QVNotificationActionCell>(*view, 1, 0);
  ASSERT_TRUE(cell);
  EXPECT_EQ(cell->containerView()->backgroundColor(), platform::Color::whiteColor());
  window->touchDown(testing::centerInWindow(*cell));
  EXPECT_EQ(cell->containerView()->backgroundColor(), platform::Color::grayColor());
  window->touchCancel();
  EXPECT_EQ(cell->containerView()->backgroundColor(), platform::Color::whiteColor());
  cell->touchesBegan({});
  cell->touchesEnded({});
  EXPECT_EQ(cell->containerView()->backgroundColor(), platform::Color::whiteColor());
}

TEST_F(BannerRowsTest, RowsBelowTheBannerStayOutOfSight) {
  auto view = banner(12);
  view->setShowOptions(true);
  view->tableView()->layoutIfNeeded();
  int visible = 0;
  for (int r = 0; r < 12; ++r)
    visible += view->tableView()->cellForRowAtIndexPath({1, r}) != nullptr;
  EXPECT_GT(visible, 0);
  EXPECT_LT(visible, 12);
  EXPECT_EQ(view->tableView()->frame().height(), 330);
}

TEST_F(BannerRowsTest, SetPollAlwaysReloads) {
  auto view = banner(2);
  view->setShowOptions(true);
  EXPECT_EQ(view->tableView()->numberOfSections(), 2);
  auto poll = view->poll();
  poll->setOptions({});
  view->setPoll(poll);  // the same poll: the table asks again
  EXPECT_EQ(view->tableView()->numberOfRowsInSection(1), 0);
}

TEST(TableUpdates, InconsistentBatchRaisesAsThePlatformDoes) {
  struct Source final : platform::TableViewDataSource {
    int sections = 1;
    int numberOfSectionsInTableView(platform::TableView&) override { return sections; }
    int numberOfRowsInSection(platform::TableView&, int) override { return 1; }
    std::shared_ptr<platform::TableViewCell> cellForRowAtIndexPath(platform::TableView&,
                                                                   platform::IndexPath) override {
      return std::make_shared<platform::TableViewCell>();
    }
  };
  auto source = std::make_shared<Source>();
  auto table = platform::View::make<platform::TableView>(Rect::make(0, 0, 100, 100));
  table->setDataSource(source);
  table->reloadData();
  source->sections = 2;
  table->beginUpdates();
  table->insertSections(1, platform::TableViewRowAnimation::kTop);
  EXPECT_NO_THROW(table->endUpdates());
  table->beginUpdates();
  table->insertSections(1, platform::TableViewRowAnimation::kTop);
  try {
    table->endUpdates();
    ADD_FAILURE() << "no exception";
  } catch (const platform::Exception& e) {
    EXPECT_EQ(e.name(), platform::kNSInternalInconsistencyException);
  }
  EXPECT_EQ(table->numberOfSections(), 2);
}

TEST(ResourceBundle, FoundByIdentifier) {
  auto bundle = platform::Bundle::bundleWithIdentifier("com.quorvia.sdk.ios");
  ASSERT_TRUE(bundle);
  for (const char* name :
       {"QVNotificationHeaderCell", "QVNotificationTextCell", "QVNotificationActionCell"}) {
    EXPECT_TRUE(platform::Nib::nibWithNibName(name, bundle)) << name;
  }
  EXPECT_EQ(platform::Bundle::bundleWithIdentifier("com.example.missing"), nullptr);
  EXPECT_EQ(platform::Nib::nibWithNibName("Missing", bundle), nullptr);
}

}  // namespace
}  // namespace quorvia
