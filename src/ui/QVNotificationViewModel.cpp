#include "ui/QVNotificationViewModel.h"

#include <exception>

namespace quorvia {
namespace {

// The text a row shows for a poll value: strings as they are, other values
// as the platform formats them, nil as nothing.
std::string displayText(const std::optional<platform::Value>& value) {
  if (!value || value->is_null()) return {};
  return value->is_string() ? value->get<std::string>() : platform::describe(*value);
}

std::optional<std::string> optionalText(const std::optional<platform::Value>& value) {
  if (!value || value->is_null()) return std::nullopt;
  return displayText(value);
}

}  // namespace

void QVNotificationViewModel::setShowOptions(bool showOptions, TableUpdates* updates) {
  showOptions_ = showOptions;
  if (optionCount() == 0 || !updates) return;
  try {
    updates->beginUpdates();
    if (showOptions) {
      updates->insertSections(kOptionsSection);
    } else {
      updates->deleteSections(kOptionsSection);
    }
    updates->endUpdates();
  } catch (const std::exception&) {
    // Dropped on purpose: showing the options twice fails inside the table.
  }
}

int QVNotificationViewModel::numberOfRowsInSection(int section) const {
  if (section == kCardSection) return 2;
  if (section == kOptionsSection && showOptions_) return static_cast<int>(optionCount());
  return 0;
}

QVNotificationViewModel::RowKind QVNotificationViewModel::rowKind(int section, int row) const {
  if (section == kCardSection) return row == 0 ? RowKind::kHeader : RowKind::kQuestion;
  return RowKind::kOption;
}

double QVNotificationViewModel::heightForRow(int section, int row) const {
  return rowKind(section, row) == RowKind::kHeader ? kHeaderRowHeight : kAutomaticHeight;
}

std::string QVNotificationViewModel::textForRow(int section, int row) const {
  if (!poll_) return {};
  switch (rowKind(section, row)) {
    case RowKind::kHeader:
      return {};
    case RowKind::kQuestion:
      return displayText(poll_->question());
    case RowKind::kOption:
      if (row < 0 || static_cast<std::size_t>(row) >= optionCount()) return {};
      return displayText(poll_->options()[row]->text());
  }
  return {};
}

QVNotificationViewModel::Mask QVNotificationViewModel::maskForOptionRow(int row) const {
  // Row 0 is tested first, so a single option is rounded at the top only: by design.
  if (row == 0) return Mask::kTop;
  if (row == static_cast<int>(optionCount()) - 1) return Mask::kBottom;
  return Mask::kNone;
}

void QVNotificationViewModel::didSelectRow(int section, int row) {
  if (section != kOptionsSection) return;
  try {
    if (!poll_) return;
    const auto& option = poll_->options().at(static_cast<std::size_t>(row));
    if (auto delegate = delegate_.lock()) {
      delegate->notificationView(banner_.lock(), optionalText(option->text()),
                                 optionalText(option->link()));
    }
  } catch (const std::exception&) {
    // A failed selection reports nothing.
  }
}

void QVNotificationViewModel::notificationTapped() {
  if (auto delegate = delegate_.lock()) delegate->notificationViewDidPressExpand(banner_.lock());
}

void QVNotificationViewModel::closeButtonPressed() {
  if (auto delegate = delegate_.lock()) delegate->notificationViewDidPressClose(banner_.lock());
}

}  // namespace quorvia
