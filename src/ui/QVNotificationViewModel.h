#pragma once
/// \file
/// Everything the poll banner decides, without any view: its sections, rows,
/// row kinds, heights, texts, corner masks and the events it reports.

#include <memory>
#include <optional>
#include <string>

#include "quorvia/export.h"
#include "service/QVModelPoll.h"
#include "ui/QVNotificationViewDelegate.h"

namespace quorvia {

class QVNotificationView;

/// The banner's table model and event logic. Main thread. Holds its poll
/// strongly and its delegate and banner weakly.
class QUORVIA_EXPORT QVNotificationViewModel final {
 public:
  enum class RowKind { kHeader, kQuestion, kOption };
  enum class Mask { kTop, kBottom, kNone };

  static constexpr int kCardSection = 0;
  static constexpr int kOptionsSection = 1;
  static constexpr double kHeaderRowHeight = 50.0;
  static constexpr double kSectionHeaderHeight = 8.0;
  static constexpr double kEstimatedRowHeight = 44.0;
  /// The height that lets a row size itself from its layout.
  static constexpr double kAutomaticHeight = -1.0;

  /// The table changes that showing or hiding the options asks for; the view
  /// layer forwards them to its table, which may throw on an inconsistent batch.
  class TableUpdates {
   public:
    virtual ~TableUpdates() = default;
    virtual void beginUpdates() = 0;
    virtual void insertSections(int section) = 0;
    virtual void deleteSections(int section) = 0;
    virtual void endUpdates() = 0;
  };

  /// `banner` is the view passed to the delegate with each event (may be empty).
  explicit QVNotificationViewModel(std::weak_ptr<QVNotificationView> banner = {})
      : banner_(std::move(banner)) {}

  const std::shared_ptr<QVModelPoll>& poll() const { return poll_; }
  void setPoll(std::shared_ptr<QVModelPoll> poll) { poll_ = std::move(poll); }
  bool showOptions() const { return showOptions_; }
  /// Stores the flag; when the poll has options, inserts (true) or deletes
  /// (false) the options section in one batch through `updates`. Whatever the
  /// batch throws is dropped: a second insertion fails there on purpose.
  void setShowOptions(bool showOptions, TableUpdates* updates);
  std::shared_ptr<QVNotificationViewDelegate> delegate() const { return delegate_.lock(); }
  void setDelegate(std::weak_ptr<QVNotificationViewDelegate> delegate) {
    delegate_ = std::move(delegate);
  }

  int numberOfSections() const { return showOptions_ ? 2 : 1; }
  int numberOfRowsInSection(int section) const;
  RowKind rowKind(int section, int row) const;
  /// 50 for the header row, kAutomaticHeight for every other row.
  double heightForRow(int section, int row) const;
  double heightForHeaderInSection(int) const { return kSectionHeaderHeight; }
  /// The question (card rows) or the option's text (option rows); "" for nil.
  std::string textForRow(int section, int row) const;
  /// Mask of option row `row`: top for row 0 (also when it is the only one),
  /// bottom for the last, none between.
  Mask maskForOptionRow(int row) const;

  /// A row was chosen: option rows report their option's text and link;
  /// anything else, or a failure while doing so, reports nothing.
  void didSelectRow(int section, int row);
  /// The card was tapped: reports expand.
  void notificationTapped();
  /// The header's close button was pressed: reports close.
  void closeButtonPressed();

 private:
  std::size_t optionCount() const { return poll_ ? poll_->options().size() : 0; }
  std::weak_ptr<QVNotificationView> banner_;
  std::weak_ptr<QVNotificationViewDelegate> delegate_;
  std::shared_ptr<QVModelPoll> poll_;
  bool showOptions_ = false;
};

}  // namespace quorvia
