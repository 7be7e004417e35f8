// The banner's pure view-model: sections, rows, heights, masks and events.

#include "support/PlatformTest.h"
#include "ui/QVNotificationViewModel.h"

namespace quorvia {
namespace {

using Mask = QVNotificationViewModel::Mask;
using RowKind = QVNotificationViewModel::RowKind;

std::shared_ptr<QVModelPoll> makePoll(int options) {
  platform::Value dict = {{"id", 1}, {"question", "Which?"}, {"options", platform::Value::array()}};
  for (int i = 0; i < options; ++i) {
    platform::Value option = {{"text", "Option " + std::to_string(i)}};
    if (i == 1) option["link"] = "https://example.com/1";
    dict["options"].push_back(option);
  }
  return QVModelPoll::objectWithDictionary(dict);
}

struct Event {
  std::string kind;
  std::optional<std::string> identifier, link;
};

class RecordingDelegate final : public QVNotificationViewDelegate {
 public:
  void notificationViewDidPressExpand(const std::shared_ptr<QVNotificationView>&) override {
    events.push_back({"expand", {}, {}});
  }
  void notificationView(const std::shared_ptr<QVNotificationView>&,
                        const std::optional<std::string>& identifier,
                        const std::optional<std::string>& link) override {
    events.push_back({"select", identifier, link});
  }
  void notificationViewDidPressClose(const std::shared_ptr<QVNotificationView>&) override {
    events.push_back({"close", {}, {}});
  }
  std::vector<Event> events;
};

// Checks batches the way a table does: the section count after a batch must
// equal the count before it with the inserted and deleted sections applied.
class StrictTable final : public QVNotificationViewModel::TableUpdates {
 public:
  explicit StrictTable(QVNotificationViewModel& model)
      : model_(model), sections_(model.numberOfSections()) {}
  void beginUpdates() override { delta_ = 0; }
  void insertSections(int) override { ++delta_; }
  void deleteSections(int) override { --delta_; }
  void endUpdates() override {
    ++batches;
    if (model_.numberOfSections() != sections_ + delta_) throw std::runtime_error("inconsistent");
    sections_ = model_.numberOfSections();
  }
  int batches = 0;

 private:
  QVNotificationViewModel& model_;
  int sections_;
  int delta_ = 0;
};

TEST(NotificationViewModel, SectionsRowsHeightsAndMasksByOptionCount) {
  struct Case {
    int options;
    std::vector<Mask> masks;
  };
  const Case cases[] = {
      {1, {Mask::kTop}},  // a single option is rounded at the top only, by design
      {2, {Mask::kTop, Mask::kBottom}},
      {3, {Mask::kTop, Mask::kNone, Mask::kBottom}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.options);
    QVNotificationViewModel model;
    model.setPoll(makePoll(c.options));
    EXPECT_EQ(model.numberOfSections(), 1);
    EXPECT_EQ(model.numberOfRowsInSection(0), 2);
    StrictTable table(model);
    model.setShowOptions(true, &table);
    EXPECT_EQ(table.batches, 1);
    ASSERT_EQ(model.numberOfSections(), 2);
    ASSERT_EQ(model.numberOfRowsInSection(1), c.options);
    EXPECT_EQ(model.rowKind(0, 0), RowKind::kHeader);
    EXPECT_EQ(model.rowKind(0, 1), RowKind::kQuestion);
    EXPECT_EQ(model.heightForRow(0, 0), 50.0);
    EXPECT_EQ(model.heightForRow(0, 1), QVNotificationViewModel::kAutomaticHeight);
    EXPECT_EQ(model.textForRow(0, 1), "Which?");
    for (int r = 0; r < c.options; ++r) {
      EXPECT_EQ(model.rowKind(1, r), RowKind::kOption);
      EXPECT_EQ(model.heightForRow(1, r), QVNotificationViewModel::kAutomaticHeight);
      EXPECT_EQ(model.textForRow(1, r), "Option " + std::to_string(r));
      EXPECT_EQ(model.maskForOptionRow(r), c.masks[r]);
    }
    for (int s = 0; s < 2; ++s) EXPECT_EQ(model.heightForHeaderInSection(s), 8.0);
  }
}

// Expanding inserts the options section in one batch, and only when there
// are options; a second expansion that the table refuses is swallowed.
TEST(NotificationViewModel, ExpandingInsertsTheOptionsSectionOnce) {
  for (const int options : {0, 2}) {
    SCOPED_TRACE(options);
    QVNotificationViewModel model;
    model.setPoll(makePoll(options));
    StrictTable table(model);
    model.setShowOptions(true, &table);
    EXPECT_NO_THROW(model.setShowOptions(true, &table));
    EXPECT_EQ(table.batches, options == 0 ? 0 : 2) << "the second batch failed inside the table";
    EXPECT_TRUE(model.showOptions());
    EXPECT_EQ(model.numberOfSections(), 2);
    EXPECT_EQ(model.numberOfRowsInSection(1), options);
    model.setShowOptions(false, &table);
    EXPECT_EQ(model.numberOfSections(), 1);
  }
}

TEST(NotificationViewModel, EventsReachTheDelegateHeldWeakly) {
  auto delegate = std::make_shared<RecordingDelegate>();
  QVNotificationViewModel model;
  model.setPoll(makePoll(3));
  model.notificationTapped();  // no delegate yet: nothing
  model.setDelegate(delegate);
  model.didSelectRow(0, 0);  // card rows do nothing on selection
  model.didSelectRow(0, 1);
  model.didSelectRow(1, 0);
  model.didSelectRow(1, 1);
  model.didSelectRow(1, 7);  // out of range: dropped
  model.notificationTapped();
  model.closeButtonPressed();
  const auto& e = delegate->events;
  ASSERT_EQ(e.size(), 4u);
  EXPECT_EQ(e[0].kind, "select");
  EXPECT_EQ(e[0].identifier, "Option 0");
  EXPECT_EQ(e[0].link, std::nullopt);
  EXPECT_EQ(e[1].identifier, "Option 1");
  EXPECT_EQ(e[1].link, "https://example.com/1");
  EXPECT_EQ(e[2].kind, "expand");
  EXPECT_EQ(e[3].kind, "close");
  delegate.reset();
  EXPECT_EQ(model.delegate(), nullptr);
  EXPECT_NO_THROW(model.didSelectRow(1, 0));
}

}  // namespace
}  // namespace quorvia
