#include <algorithm>
#include <unordered_map>

#include "platform/AccessibilityBus.h"

namespace quorvia::platform {
namespace {

struct Place {
  std::uint64_t parent = 0;
  int index = 0;
  const AccessibleElement* element = nullptr;
};

std::unordered_map<std::uint64_t, Place> placesOf(const std::vector<AccessibleElement>& list) {
  std::unordered_map<std::uint64_t, Place> places;
  std::unordered_map<std::uint64_t, int> children;
  for (const AccessibleElement& e : list) {
    const bool held = e.parent >= 0 && static_cast<std::size_t>(e.parent) < list.size();
    const std::uint64_t parent = held ? list[e.parent].id : 0;
    places[e.id] = {parent, children[parent]++, &e};
  }
  return places;
}

AccessibilityChange state(std::uint64_t id, AccessibleState which, bool value) {
  AccessibilityChange change;
  change.kind = AccessibilityChange::Kind::kStateChanged;
  change.element = id;
  change.state = which;
  change.value = value;
  return change;
}

}  // namespace

std::vector<AccessibilityChange> changesBetween(const std::vector<AccessibleElement>& before,
                                                const std::vector<AccessibleElement>& now) {
  using Kind = AccessibilityChange::Kind;
  const auto was = placesOf(before);
  const auto is = placesOf(now);
  std::vector<AccessibilityChange> changes;

  // Gone: only the top of each subtree that went, from the back of each
  // parent's children, so that each index is right when it is applied.
  std::vector<AccessibilityChange> removed;
  for (const AccessibleElement& e : before) {
    if (is.count(e.id)) continue;
    const Place& place = was.at(e.id);
    if (place.parent != 0 && !is.count(place.parent)) continue;
    removed.push_back({Kind::kRemoved, e.id, place.parent, place.index});
  }
  std::stable_sort(removed.begin(), removed.end(), [](const auto& a, const auto& b) {
    return a.parent != b.parent ? a.parent < b.parent : a.index > b.index;
  });
  changes.insert(changes.end(), removed.begin(), removed.end());

  // New: parents before children, each parent's children in order.
  std::vector<AccessibilityChange> focusGained;
  for (const AccessibleElement& e : now) {
    if (was.count(e.id)) continue;
    const Place& place = is.at(e.id);
    changes.push_back({Kind::kAdded, e.id, place.parent, place.index});
    if (e.focused) focusGained.push_back(state(e.id, AccessibleState::kFocused, true));
  }

  // Kept: what a listener follows. Focus leaves one element before it
  // reaches the next.
  std::vector<AccessibilityChange> focusLost;
  for (const AccessibleElement& e : now) {
    const auto old = was.find(e.id);
    if (old == was.end()) continue;
    const AccessibleElement& o = *old->second.element;
    if (o.name != e.name) {
      AccessibilityChange renamed;
      renamed.kind = Kind::kNameChanged;
      renamed.element = e.id;
      changes.push_back(renamed);
    }
    if (o.showing != e.showing)
      changes.push_back(state(e.id, AccessibleState::kShowing, e.showing));
    if (o.focusable != e.focusable) {
      changes.push_back(state(e.id, AccessibleState::kFocusable, e.focusable));
    }
    if (o.modal != e.modal) changes.push_back(state(e.id, AccessibleState::kModal, e.modal));
    if (o.focused != e.focused) {
      (e.focused ? focusGained : focusLost)
          .push_back(state(e.id, AccessibleState::kFocused, e.focused));
    }
  }
  changes.insert(changes.end(), focusLost.begin(), focusLost.end());
  changes.insert(changes.end(), focusGained.begin(), focusGained.end());
  return changes;
}

}  // namespace quorvia::platform
