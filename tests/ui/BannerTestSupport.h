#pragma once
// Helpers for the banner tests: poll dictionaries and lookups in the key window.

#include <memory>
#include <string>
#include <vector>

#include "quorvia/platform/Value.h"
#include "quorvia/platform/Window.h"
#include "ui/QVNotificationActionCell.h"
#include "ui/QVNotificationHeaderCell.h"
#include "ui/QVNotificationTextCell.h"
#include "ui/QVNotificationView.h"

namespace quorvia::testing {

/// A poll dictionary with `options` as (text, link) pairs; an empty link is none.
inline platform::Value pollDict(const std::string& question,
                                const std::vector<std::pair<std::string, std::string>>& options,
                                int id = 42) {
  platform::Value poll = {{"id", id}, {"question", question}, {"options", platform::Value::array()}};
  for (const auto& [text, link] : options) {
    platform::Value option = {{"text", text}};
    if (!link.empty()) option["link"] = link;
    poll["options"].push_back(option);
  }
  return poll;
}

/// The visible cell of a row of the banner's table, after a layout pass.
template <typename Cell>
std::shared_ptr<Cell> cellAt(QVNotificationView& view, int section, int row) {
  view.tableView()->layoutIfNeeded();
  return std::dynamic_pointer_cast<Cell>(
      view.tableView()->cellForRowAtIndexPath(platform::IndexPath{section, row}));
}

/// The centre of `view` in window coordinates (model values).
inline platform::Point centerInWindow(platform::View& view) {
  platform::Point p{view.frame().width() / 2, view.frame().height() / 2};
  for (platform::View* v = &view; v; v = v->superview().get()) {
    if (!v->superview()) break;
    p.x += v->frame().x();
    p.y += v->frame().y();
  }
  return p;
}

}  // namespace quorvia::testing
