#pragma once
/// \file
/// A table view (UITableView) without scrolling: sections and rows from a
/// data source and delegate, cells from layout files registered per reuse
/// identifier, fixed and automatic row heights, section headers and batch
/// updates of sections. Main thread.

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "quorvia/export.h"
#include "platform/Nib.h"
#include "platform/View.h"

namespace quorvia::platform {

class TableView;

/// Section and row of a table row.
struct IndexPath {
  int section = 0;
  int row = 0;
  static IndexPath forRow(int row, int section) { return IndexPath{section, row}; }
  bool operator==(const IndexPath&) const = default;
};

/// The height that asks the table to size a row from its cell's layout.
inline constexpr double UITableViewAutomaticDimension = -1.0;

/// Row animations (UITableViewRowAnimation); this table inserts at once.
enum class TableViewRowAnimation { kFade = 0, kRight = 1, kLeft = 2, kTop = 3, kBottom = 4 };

/// A table row (UITableViewCell).
class QUORVIA_EXPORT TableViewCell : public View {
 public:
  const std::string& reuseIdentifier() const { return reuseIdentifier_; }
  void setReuseIdentifier(std::string identifier) { reuseIdentifier_ = std::move(identifier); }
  virtual void setSelected(bool selected, bool animated);
  bool isSelected() const { return selected_; }

 private:
  std::string reuseIdentifier_;
  bool selected_ = false;
};

/// Supplies the table's sections, rows and cells. Held weakly by the table.
class TableViewDataSource {
 public:
  virtual ~TableViewDataSource() = default;
  virtual int numberOfSectionsInTableView(TableView& tableView) = 0;
  virtual int numberOfRowsInSection(TableView& tableView, int section) = 0;
  virtual std::shared_ptr<TableViewCell> cellForRowAtIndexPath(TableView& tableView,
                                                               IndexPath indexPath) = 0;
};

/// Supplies heights and headers and hears selections. Held weakly by the table.
class TableViewDelegate {
 public:
  virtual ~TableViewDelegate() = default;
  /// A height in points or UITableViewAutomaticDimension.
  virtual double heightForRowAtIndexPath(TableView& tableView, IndexPath indexPath);
  virtual double heightForHeaderInSection(TableView& tableView, int section);
  virtual std::shared_ptr<View> viewForHeaderInSection(TableView& tableView, int section);
  virtual void didSelectRowAtIndexPath(TableView& tableView, IndexPath indexPath);
};

class QUORVIA_EXPORT TableView final : public View {
 public:
  void setDataSource(std::weak_ptr<TableViewDataSource> dataSource) {
    dataSource_ = std::move(dataSource);
  }
  void setDelegate(std::weak_ptr<TableViewDelegate> delegate) { delegate_ = std::move(delegate); }
  void setScrollEnabled(bool enabled) { scrollEnabled_ = enabled; }
  bool isScrollEnabled() const { return scrollEnabled_; }
  void setDelaysContentTouches(bool delays) { delaysContentTouches_ = delays; }
  void setCanCancelContentTouches(bool can) { canCancelContentTouches_ = can; }
  /// 0: none, 1: single line. This table draws no separators.
  void setSeparatorStyle(int style) { separatorStyle_ = style; }
  void setSeparatorColor(Color color) { separatorColor_ = color; }
  void setEstimatedRowHeight(double height) { estimatedRowHeight_ = height; }
  double estimatedRowHeight() const { return estimatedRowHeight_; }
  /// The height of rows whose delegate gives none; may be automatic.
  void setRowHeight(double height) { rowHeight_ = height; }
  double rowHeight() const { return rowHeight_; }

  /// Cells for `identifier` are made from `nib` (replacing an earlier one).
  void registerNib(std::shared_ptr<Nib> nib, const std::string& identifier);
  /// A free cell made for `identifier`, or a new one from its nib; null when
  /// nothing is registered for it. Throws platform::Exception when the nib
  /// does not make a table cell.
  std::shared_ptr<TableViewCell> dequeueReusableCellWithIdentifier(const std::string& identifier);

  /// Forgets the rows and asks the data source again; rows are laid out on
  /// the next layout pass.
  void reloadData();
  void beginUpdates();
  void insertSections(int section, TableViewRowAnimation animation);
  void deleteSections(int section, TableViewRowAnimation animation);
  /// Applies the batch. When the data source's counts after it do not equal
  /// the counts before it with the inserted and deleted sections applied,
  /// throws platform::Exception named NSInternalInconsistencyException and
  /// keeps its old rows.
  void endUpdates();

  int numberOfSections();
  int numberOfRowsInSection(int section);
  /// The visible cell of a row, or null.
  std::shared_ptr<TableViewCell> cellForRowAtIndexPath(IndexPath indexPath) const;
  /// The row of a visible cell, when it is one.
  std::optional<IndexPath> indexPathForCell(const View* cell) const;
  /// Selects the row of a visible cell and tells the delegate.
  void selectRowForCell(const View* cell);

  /// Lays the rows out from the top without scrolling: rows below the
  /// bottom edge are not made.
  void layoutSubviews() override;

 private:
  void loadCountsIfNeeded();
  std::weak_ptr<TableViewDataSource> dataSource_;
  std::weak_ptr<TableViewDelegate> delegate_;
  bool scrollEnabled_ = true;
  bool delaysContentTouches_ = true;
  bool canCancelContentTouches_ = true;
  int separatorStyle_ = 1;
  Color separatorColor_ = Color::grayColor();
  double estimatedRowHeight_ = 0;
  double rowHeight_ = 44;
  std::map<std::string, std::shared_ptr<Nib>> nibs_;
  std::map<std::string, std::vector<std::shared_ptr<TableViewCell>>> reusePool_;
  bool countsLoaded_ = false;
  std::vector<int> rowCounts_;
  int updateDepth_ = 0;
  std::vector<int> inserted_, deleted_;
  std::vector<std::pair<IndexPath, std::shared_ptr<TableViewCell>>> visibleCells_;
  std::vector<std::shared_ptr<View>> headerViews_;
};

}  // namespace quorvia::platform
