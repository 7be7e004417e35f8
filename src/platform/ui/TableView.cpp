#include "platform/TableView.h"

#include <algorithm>

#include "quorvia/platform/Error.h"

namespace quorvia::platform {

void TableViewCell::setSelected(bool selected, bool) { selected_ = selected; }

double TableViewDelegate::heightForRowAtIndexPath(TableView& tableView, IndexPath) {
  return tableView.rowHeight();
}
double TableViewDelegate::heightForHeaderInSection(TableView&, int) { return 0; }
std::shared_ptr<View> TableViewDelegate::viewForHeaderInSection(TableView&, int) {
  return nullptr;
}
void TableViewDelegate::didSelectRowAtIndexPath(TableView&, IndexPath) {}

void TableView::registerNib(std::shared_ptr<Nib> nib, const std::string& identifier) {
  nibs_[identifier] = std::move(nib);
}

std::shared_ptr<TableViewCell> TableView::dequeueReusableCellWithIdentifier(
    const std::string& identifier) {
  auto& pool = reusePool_[identifier];
  if (!pool.empty()) {
    auto cell = pool.back();
    pool.pop_back();
    return cell;
  }
  auto it = nibs_.find(identifier);
  if (it == nibs_.end() || !it->second) return nullptr;
  auto cell = std::dynamic_pointer_cast<TableViewCell>(it->second->instantiate());
  if (!cell) {
    throw Exception(kNSInternalInconsistencyException,
                    "invalid nib registered for identifier (" + identifier +
                        ") - nib must contain exactly one top level object which must be a "
                        "UITableViewCell instance");
  }
  cell->setReuseIdentifier(identifier);
  return cell;
}

void TableView::loadCountsIfNeeded() {
  if (countsLoaded_) return;
  countsLoaded_ = true;
  rowCounts_.clear();
  auto source = dataSource_.lock();
  if (!source) return;
  const int sections = std::max(0, source->numberOfSectionsInTableView(*this));
  for (int s = 0; s < sections; ++s) {
    rowCounts_.push_back(std::max(0, source->numberOfRowsInSection(*this, s)));
  }
}

void TableView::reloadData() {
  countsLoaded_ = false;
  loadCountsIfNeeded();
  setNeedsLayout();
}

void TableView::beginUpdates() {
  loadCountsIfNeeded();
  if (updateDepth_++ == 0) {
    inserted_.clear();
    deleted_.clear();
  }
}

void TableView::insertSections(int section, TableViewRowAnimation) {
  beginUpdates();
  inserted_.push_back(section);
  endUpdates();
}

void TableView::deleteSections(int section, TableViewRowAnimation) {
  beginUpdates();
  deleted_.push_back(section);
  endUpdates();
}

void TableView::endUpdates() {
  if (updateDepth_ == 0 || --updateDepth_ > 0) return;
  const std::vector<int> inserted = std::move(inserted_);
  const std::vector<int> deleted = std::move(deleted_);
  inserted_.clear();
  deleted_.clear();
  auto source = dataSource_.lock();
  if (!source) return;

  const int before = static_cast<int>(rowCounts_.size());
  const int after = source->numberOfSectionsInTableView(*this);
  const int expected = before + static_cast<int>(inserted.size() - deleted.size());
  if (after != expected) {
    throw Exception(
        kNSInternalInconsistencyException,
        "Invalid update: invalid number of sections.  The number of sections contained in the "
        "table view after the update (" +
            std::to_string(after) +
            ") must be equal to the number of sections contained in the table view before the "
            "update (" +
            std::to_string(before) + "), plus or minus the number of sections inserted or deleted (" +
            std::to_string(inserted.size()) + " inserted, " + std::to_string(deleted.size()) +
            " deleted).");
  }
  for (int d : deleted) {
    if (d < 0 || d >= before) {
      throw Exception(kNSInternalInconsistencyException,
                      "attempt to delete section " + std::to_string(d) + ", but there are only " +
                          std::to_string(before) + " sections before the update");
    }
  }
  for (int i : inserted) {
    if (i < 0 || i >= after) {
      throw Exception(kNSInternalInconsistencyException,
                      "attempt to insert section " + std::to_string(i) + " but there are only " +
                          std::to_string(after) + " sections after the update");
    }
  }
  // Sections that survive keep their rows: their counts must not change.
  std::vector<int> survivors;
  for (int s = 0; s < before; ++s) {
    if (std::find(deleted.begin(), deleted.end(), s) == deleted.end()) survivors.push_back(s);
  }
  std::vector<int> counts(std::max(0, after));
  std::size_t next = 0;
  for (int s = 0; s < after; ++s) {
    counts[s] = std::max(0, source->numberOfRowsInSection(*this, s));
    if (std::find(inserted.begin(), inserted.end(), s) != inserted.end()) continue;
    if (next < survivors.size() && counts[s] != rowCounts_[survivors[next]]) {
      throw Exception(kNSInternalInconsistencyException,
                      "Invalid update: invalid number of rows in section " + std::to_string(s));
    }
    ++next;
  }
  rowCounts_ = std::move(counts);
  setNeedsLayout();
}

int TableView::numberOfSections() {
  loadCountsIfNeeded();
  return static_cast<int>(rowCounts_.size());
}

int TableView::numberOfRowsInSection(int section) {
  loadCountsIfNeeded();
  return section >= 0 && section < static_cast<int>(rowCounts_.size()) ? rowCounts_[section] : 0;
}

std::shared_ptr<TableViewCell> TableView::cellForRowAtIndexPath(IndexPath indexPath) const {
  for (const auto& [path, cell] : visibleCells_) {
    if (path == indexPath) return cell;
  }
  return nullptr;
}

std::optional<IndexPath> TableView::indexPathForCell(const View* cell) const {
  for (const auto& [path, visible] : visibleCells_) {
    if (visible.get() == cell) return path;
  }
  return std::nullopt;
}

void TableView::selectRowForCell(const View* cell) {
  auto path = indexPathForCell(cell);
  if (!path) return;
  if (auto visible = cellForRowAtIndexPath(*path)) visible->setSelected(true, false);
  if (auto delegate = delegate_.lock()) delegate->didSelectRowAtIndexPath(*this, *path);
}

void TableView::layoutSubviews() {
  View::layoutSubviews();
  loadCountsIfNeeded();
  for (auto& [path, cell] : visibleCells_) {
    cell->removeFromSuperview();
    reusePool_[cell->reuseIdentifier()].push_back(cell);
  }
  visibleCells_.clear();
  for (auto& header : headerViews_) header->removeFromSuperview();
  headerViews_.clear();

  auto source = dataSource_.lock();
  if (!source) return;
  auto delegate = delegate_.lock();
  const double width = bounds().width();
  const double bottom = bounds().height();
  double y = 0;
  for (int s = 0; s < static_cast<int>(rowCounts_.size()) && y < bottom; ++s) {
    const double headerHeight = delegate ? delegate->heightForHeaderInSection(*this, s) : 0;
    if (headerHeight > 0) {
      if (auto header = delegate->viewForHeaderInSection(*this, s)) {
        header->setFrame(Rect::make(0, y, width, headerHeight));
        addSubview(header);
        headerViews_.push_back(header);
      }
      y += headerHeight;
    }
    for (int r = 0; r < rowCounts_[s] && y < bottom; ++r) {
      const IndexPath path{s, r};
      auto cell = source->cellForRowAtIndexPath(*this, path);
      if (!cell) {
        throw Exception(kNSInternalInconsistencyException,
                        "UITableView dataSource returned a nil cell for row " + std::to_string(r) +
                            " in section " + std::to_string(s));
      }
      double height = delegate ? delegate->heightForRowAtIndexPath(*this, path) : rowHeight_;
      if (height == UITableViewAutomaticDimension) {
        height = cell->contentHeightForWidth(width);
        if (height <= 0) height = estimatedRowHeight_ > 0 ? estimatedRowHeight_ : 44;
      }
      cell->setFrame(Rect::make(0, y, width, height));
      addSubview(cell);
      visibleCells_.emplace_back(path, cell);
      y += height;
    }
  }
}

}  // namespace quorvia::platform
