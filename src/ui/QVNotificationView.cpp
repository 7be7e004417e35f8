#include "ui/QVNotificationView.h"

#include <algorithm>
#include <mutex>

#include "platform/Bundle.h"
#include "ui/BuiltInLayouts.h"
#include "ui/QVNotificationActionCell.h"
#include "ui/QVNotificationHeaderCell.h"
#include "ui/QVNotificationTextCell.h"

namespace quorvia {
namespace {

using platform::IndexPath;
using platform::TableView;

constexpr const char* kBundleIdentifier = "com.quorvia.sdk.ios";
constexpr const char* kHeaderCell = "QVNotificationHeaderCell";
constexpr const char* kTextCell = "QVNotificationTextCell";
constexpr const char* kActionCell = "QVNotificationActionCell";
constexpr int kSeparatorStyleNone = 0;

void registerCellClasses() {
  static std::once_flag once;
  std::call_once(once, [] {
    platform::Nib::registerClass(kHeaderCell, [] { return std::make_shared<QVNotificationHeaderCell>(); });
    platform::Nib::registerClass(kTextCell, [] { return std::make_shared<QVNotificationTextCell>(); });
    platform::Nib::registerClass(kActionCell, [] { return std::make_shared<QVNotificationActionCell>(); });
  });
}

// Makes the view layer's table carry out the model's section updates.
class TableUpdater final : public QVNotificationViewModel::TableUpdates {
 public:
  explicit TableUpdater(TableView& table) : table_(table) {}
  void beginUpdates() override { table_.beginUpdates(); }
  void insertSections(int s) override {
    table_.insertSections(s, platform::TableViewRowAnimation::kTop);
  }
  void deleteSections(int s) override {
    table_.deleteSections(s, platform::TableViewRowAnimation::kTop);
  }
  void endUpdates() override { table_.endUpdates(); }

 private:
  TableView& table_;
};

// Whether `nib` makes a row of class `Cell`. Checked once per banner: a file
// that makes anything else, or raises, would fail the table's layout inside
// the host's paint.
template <typename Cell>
bool makesCell(const platform::Nib& nib) {
  try {
    return std::dynamic_pointer_cast<Cell>(nib.instantiate()) != nullptr;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace

std::shared_ptr<QVNotificationView> QVNotificationView::initWithFrame(platform::Rect frame) {
  auto view = platform::View::make<QVNotificationView>(frame);
  view->model_ = QVNotificationViewModel(view);
  // Announced and read as one message holding the question and its options.
  view->setAccessibilityRole(platform::AccessibleRole::kAlert);
  view->setAccessibilityLabel("Poll");
  view->setup();
  return view;
}

void QVNotificationView::setup() {
  registerCellClasses();
  auto self = std::static_pointer_cast<QVNotificationView>(shared_from_this());
  // No resizing rule: the table keeps the size the banner had at creation.
  tableView_ = platform::View::make<TableView>(bounds());
  tableView_->setScrollEnabled(false);
  tableView_->setDelegate(self);
  tableView_->setDataSource(self);
  // A touch reaches an option row at once, which colours it on touch-down.
  tableView_->setDelaysContentTouches(false);
  tableView_->setCanCancelContentTouches(false);
  tableView_->setBackgroundColor(platform::Color::clearColor());
  tableView_->setSeparatorStyle(kSeparatorStyleNone);
  tableView_->setSeparatorColor(platform::Color::blackColor());
  tableView_->setEstimatedRowHeight(QVNotificationViewModel::kEstimatedRowHeight);
  tableView_->setRowHeight(platform::UITableViewAutomaticDimension);
  addSubview(tableView_);

  // A layout file that is missing or makes no row of its kind gives way to
  // the shipped one built into the library: the packaging fault goes
  // unnoticed, as it would on the original platform, and the poll still shows.
  auto bundle = platform::Bundle::bundleWithIdentifier(kBundleIdentifier);
  const auto layout = [&bundle](const char* name, bool (*makesRow)(const platform::Nib&)) {
    auto nib = bundle ? platform::Nib::nibWithNibName(name, bundle) : nullptr;
    return nib && makesRow(*nib) ? nib : builtInLayout(name);
  };
  tableView_->registerNib(layout(kHeaderCell, makesCell<QVNotificationHeaderCell>), kHeaderCell);
  tableView_->registerNib(layout(kTextCell, makesCell<QVNotificationTextCell>), kTextCell);
  tableView_->registerNib(layout(kActionCell, makesCell<QVNotificationActionCell>), kActionCell);
}

void QVNotificationView::setPoll(std::shared_ptr<QVModelPoll> poll) {
  model_.setPoll(std::move(poll));
  tableView_->reloadData();
}

void QVNotificationView::setShowOptions(bool showOptions) {
  TableUpdater updater(*tableView_);
  model_.setShowOptions(showOptions, &updater);
}

void QVNotificationView::notificationTapped() { model_.notificationTapped(); }

int QVNotificationView::numberOfSectionsInTableView(TableView&) {
  return model_.numberOfSections();
}

int QVNotificationView::numberOfRowsInSection(TableView&, int section) {
  return model_.numberOfRowsInSection(section);
}

std::shared_ptr<platform::TableViewCell> QVNotificationView::cellForRowAtIndexPath(
    TableView& tableView, IndexPath indexPath) {
  auto self = std::static_pointer_cast<QVNotificationView>(shared_from_this());
  const std::string text = model_.textForRow(indexPath.section, indexPath.row);
  switch (model_.rowKind(indexPath.section, indexPath.row)) {
    case QVNotificationViewModel::RowKind::kHeader: {
      // A new recogniser each time a card row is handed out, also to a reused
      // cell that has one: kept as it is, every recogniser sends the same event.
      auto tap = std::make_shared<platform::TapGestureRecognizer>(self, "notificationTapped:");
      auto cell = std::dynamic_pointer_cast<QVNotificationHeaderCell>(
          tableView.dequeueReusableCellWithIdentifier(kHeaderCell));
      if (!cell) return nullptr;
      cell->setDelegate(self);
      cell->setBackgroundColor(platform::Color::clearColor());
      cell->addGestureRecognizer(tap);
      return cell;
    }
    case QVNotificationViewModel::RowKind::kQuestion: {
      auto tap = std::make_shared<platform::TapGestureRecognizer>(self, "notificationTapped:");
      auto cell = std::dynamic_pointer_cast<QVNotificationTextCell>(
          tableView.dequeueReusableCellWithIdentifier(kTextCell));
      if (!cell) return nullptr;
      cell->setBackgroundColor(platform::Color::clearColor());
      if (cell->customLabel()) cell->customLabel()->setText(text);
      cell->addGestureRecognizer(tap);
      return cell;
    }
    case QVNotificationViewModel::RowKind::kOption: {
      auto cell = std::dynamic_pointer_cast<QVNotificationActionCell>(
          tableView.dequeueReusableCellWithIdentifier(kActionCell));
      if (!cell) return nullptr;
      if (cell->customLabel()) cell->customLabel()->setText(text);
      // The row is one button named by its option, as a table cell reads.
      cell->setAccessibilityRole(platform::AccessibleRole::kPushButton);
      cell->setAccessibilityLabel(text);
      cell->setBackgroundColor(platform::Color::clearColor());
      switch (model_.maskForOptionRow(indexPath.row)) {
        case QVNotificationViewModel::Mask::kTop:
          cell->setTopMask();
          break;
        case QVNotificationViewModel::Mask::kBottom:
          cell->setBottomMask();
          break;
        case QVNotificationViewModel::Mask::kNone:
          cell->setNoMask();
          break;
      }
      return cell;
    }
  }
  return nullptr;
}

double QVNotificationView::heightForRowAtIndexPath(TableView&, IndexPath indexPath) {
  const double height = model_.heightForRow(indexPath.section, indexPath.row);
  return height == QVNotificationViewModel::kAutomaticHeight ? platform::UITableViewAutomaticDimension
                                                              : height;
}

double QVNotificationView::heightForHeaderInSection(TableView&, int section) {
  return model_.heightForHeaderInSection(section);
}

std::shared_ptr<platform::View> QVNotificationView::viewForHeaderInSection(TableView& tableView,
                                                                           int section) {
  return platform::View::make(platform::Rect::make(0, 0, tableView.bounds().width(),
                                                   model_.heightForHeaderInSection(section)));
}

void QVNotificationView::didSelectRowAtIndexPath(TableView&, IndexPath indexPath) {
  model_.didSelectRow(indexPath.section, indexPath.row);
}

void QVNotificationView::headerCell(const std::shared_ptr<QVNotificationHeaderCell>&,
                                    const std::shared_ptr<platform::Button>&) {
  model_.closeButtonPressed();
}

bool QVNotificationView::performAction(std::string_view selector, const std::shared_ptr<void>&) {
  if (selector != "notificationTapped:") return false;
  notificationTapped();
  return true;
}

namespace {

// Where `view` is in `ancestor`'s coordinates (model values).
platform::Rect frameIn(const platform::View& view, const platform::View& ancestor) {
  platform::Rect rect = view.frame();
  for (auto v = view.superview(); v && v.get() != &ancestor; v = v->superview()) {
    rect.origin.x += v->frame().x();
    rect.origin.y += v->frame().y();
  }
  return rect;
}

platform::Rect unite(const platform::Rect& a, const platform::Rect& b) {
  const double x = std::min(a.x(), b.x()), y = std::min(a.y(), b.y());
  return platform::Rect::make(x, y, std::max(a.maxX(), b.maxX()) - x,
                              std::max(a.maxY(), b.maxY()) - y);
}

constexpr double kRingRadius = 10.0;

}  // namespace

bool QVNotificationView::acceptsKeyboardFocus() const {
  return !keyboardFocusEnded_ && superview() != nullptr;
}

std::shared_ptr<platform::Button> QVNotificationView::closeButton() {
  auto header = std::dynamic_pointer_cast<QVNotificationHeaderCell>(
      tableView_->cellForRowAtIndexPath({QVNotificationViewModel::kCardSection, 0}));
  return header ? header->closeButton() : nullptr;
}

std::shared_ptr<platform::Label> QVNotificationView::questionLabel() {
  auto text = std::dynamic_pointer_cast<QVNotificationTextCell>(
      tableView_->cellForRowAtIndexPath({QVNotificationViewModel::kCardSection, 1}));
  return text ? text->customLabel() : nullptr;
}

std::vector<std::shared_ptr<platform::View>> QVNotificationView::focusOrder() {
  tableView_->layoutIfNeeded();
  std::vector<std::shared_ptr<platform::View>> order;
  if (auto close = closeButton()) order.push_back(close);
  if (auto question = questionLabel()) order.push_back(question);
  // Rows that do not fit are not made, as nothing scrolls: focus reaches
  // what a finger reaches.
  for (int row = 0; row < model_.numberOfRowsInSection(QVNotificationViewModel::kOptionsSection);
       ++row) {
    if (auto cell = tableView_->cellForRowAtIndexPath({QVNotificationViewModel::kOptionsSection, row})) {
      order.push_back(cell);
    }
  }
  return order;
}

std::size_t QVNotificationView::defaultFocus() {
  // The card: what the user just opened.
  tableView_->layoutIfNeeded();
  return closeButton() && questionLabel() ? 1 : 0;
}

std::optional<std::size_t> QVNotificationView::cancelElement() {
  tableView_->layoutIfNeeded();
  return closeButton() ? std::optional<std::size_t>(0) : std::nullopt;
}

void QVNotificationView::showFocusRing(std::optional<std::size_t> index) {
  const auto order = index ? focusOrder() : std::vector<std::shared_ptr<platform::View>>{};
  if (!index || *index >= order.size()) {
    if (focusRing_) focusRing_->removeFromSuperview();
    return;
  }
  const auto& element = order[*index];
  platform::Rect rect = frameIn(*element, *this);
  unsigned corners = platform::kRectCornerAllCorners;
  double radius = kRingRadius;
  if (auto question = questionLabel(); element == question) {
    // The card is the header and the question together, as a tap sees it.
    auto header = std::dynamic_pointer_cast<QVNotificationHeaderCell>(
        tableView_->cellForRowAtIndexPath({QVNotificationViewModel::kCardSection, 0}));
    auto text = std::dynamic_pointer_cast<QVNotificationTextCell>(
        tableView_->cellForRowAtIndexPath({QVNotificationViewModel::kCardSection, 1}));
    if (text && text->containerView()) rect = frameIn(*text->containerView(), *this);
    if (header && header->containerView()) rect = unite(frameIn(*header->containerView(), *this), rect);
  } else if (auto option = std::dynamic_pointer_cast<QVNotificationActionCell>(element)) {
    if (option->containerView()) rect = frameIn(*option->containerView(), *this);
    const auto path = tableView_->indexPathForCell(option.get());
    switch (model_.maskForOptionRow(path ? path->row : 0)) {
      case QVNotificationViewModel::Mask::kTop:
        corners = platform::kRectCornerTopLeft | platform::kRectCornerTopRight;
        break;
      case QVNotificationViewModel::Mask::kBottom:
        corners = platform::kRectCornerBottomLeft | platform::kRectCornerBottomRight;
        break;
      case QVNotificationViewModel::Mask::kNone:
        corners = 0;
        break;
    }
  }
  if (!focusRing_) focusRing_ = std::make_shared<platform::FocusRing>();
  focusRing_->setFrame(rect);
  focusRing_->setShape(radius, corners);
  // Over the rows, whatever the table did to its subviews since.
  if (subviews().empty() || subviews().back() != focusRing_) addSubview(focusRing_);
}

void QVNotificationView::endKeyboardFocus() {
  keyboardFocusEnded_ = true;
  showFocusRing(std::nullopt);
}

}  // namespace quorvia
