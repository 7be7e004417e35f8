#pragma once
/// \file
/// The in-app poll banner: a view holding one table that shows the card
/// (header and question rows) and, once expanded, one row per option. Its
/// logic lives in QVNotificationViewModel; this class drives the table.

#include <memory>

#include "quorvia/export.h"
#include "platform/FocusRing.h"
#include "platform/KeyboardPane.h"
#include "platform/Label.h"
#include "platform/TableView.h"
#include "ui/QVNotificationHeaderCellDelegate.h"
#include "ui/QVNotificationViewModel.h"

namespace quorvia {

/// Main thread. Owned by whoever shows it (the SDK while it is presented);
/// holds its poll and table strongly and its delegate weakly.
class QUORVIA_EXPORT QVNotificationView final : public platform::View,
                                                public platform::TableViewDataSource,
                                                public platform::TableViewDelegate,
                                                public QVNotificationHeaderCellDelegate,
                                                public platform::KeyboardPane {
 public:
  /// Makes the banner with `frame` and builds its table (setup). Its rows are
  /// laid out by the files of the resource bundle "com.quorvia.sdk.ios"; one
  /// that is missing or unusable is replaced by the shipped layout.
  static std::shared_ptr<QVNotificationView> initWithFrame(platform::Rect frame);

  /// Builds the table; called once by initWithFrame.
  void setup();

  const std::shared_ptr<QVModelPoll>& poll() const { return model_.poll(); }
  /// Stores the poll and reloads the whole table.
  void setPoll(std::shared_ptr<QVModelPoll> poll);
  bool showOptions() const { return model_.showOptions(); }
  /// Shows (true) or hides the options section; see QVNotificationViewModel.
  void setShowOptions(bool showOptions);
  std::shared_ptr<QVNotificationViewDelegate> delegate() const { return model_.delegate(); }
  void setDelegate(std::weak_ptr<QVNotificationViewDelegate> delegate) {
    model_.setDelegate(std::move(delegate));
  }
  const std::shared_ptr<platform::TableView>& tableView() const { return tableView_; }
  const QVNotificationViewModel& viewModel() const { return model_; }

  /// The card's tap recogniser fired.
  void notificationTapped();

  // Table data source and delegate.
  int numberOfSectionsInTableView(platform::TableView& tableView) override;
  int numberOfRowsInSection(platform::TableView& tableView, int section) override;
  std::shared_ptr<platform::TableViewCell> cellForRowAtIndexPath(
      platform::TableView& tableView, platform::IndexPath indexPath) override;
  double heightForRowAtIndexPath(platform::TableView& tableView,
                                 platform::IndexPath indexPath) override;
  double heightForHeaderInSection(platform::TableView& tableView, int section) override;
  std::shared_ptr<platform::View> viewForHeaderInSection(platform::TableView& tableView,
                                                         int section) override;
  void didSelectRowAtIndexPath(platform::TableView& tableView,
                               platform::IndexPath indexPath) override;

  // QVNotificationHeaderCellDelegate
  void headerCell(const std::shared_ptr<QVNotificationHeaderCell>& cell,
                  const std::shared_ptr<platform::Button>& closeButton) override;

  bool performAction(std::string_view selector, const std::shared_ptr<void>& sender) override;

  // Keyboard focus: a pane of the window, entered by F6. Focus visits the
  // close control, the card and the options, top to bottom as they read; the
  // card is its question, which a tap on expands. Expanded, the banner holds
  // the keyboard as its backdrop holds the pointer.
  platform::KeyboardPane* keyboardPane() override { return this; }
  bool acceptsKeyboardFocus() const override;
  bool isModal() const override { return showOptions() && acceptsKeyboardFocus(); }
  std::vector<std::shared_ptr<platform::View>> focusOrder() override;
  std::size_t defaultFocus() override;
  std::optional<std::size_t> cancelElement() override;
  void showFocusRing(std::optional<std::size_t> index) override;
  /// The banner is going: keyboard focus leaves it and cannot come back.
  void endKeyboardFocus();

 private:
  std::shared_ptr<platform::Button> closeButton();
  std::shared_ptr<platform::Label> questionLabel();

  QVNotificationViewModel model_;
  std::shared_ptr<platform::TableView> tableView_;
  bool keyboardFocusEnded_ = false;
  std::shared_ptr<platform::FocusRing> focusRing_;
};

}  // namespace quorvia
