#pragma once
/// \file
/// Layout files (UINib): a JSON description of a view tree that is loaded
/// from a bundle and instantiated into new views.
///
/// Format ("<name>.json" in the bundle):
///   {"class": "<registered class>", "size": [w, h], "backgroundColor": "clear",
///    "subviews": [ <node>... ]}
/// A node: {"type": "View" | "Label" | "Button" | "<registered class>",
///          "outlet": name, "left"/"right"/"top"/"bottom"/"width"/"height": points,
///          "backgroundColor", "text"/"title", "font", "textColor", "alignment":
///          "left"|"center"|"right", "action": selector (buttons, sent to the
///          root), "subviews": [...]}.

#include <functional>
#include <memory>
#include <string>

#include "quorvia/export.h"
#include "platform/Bundle.h"
#include "quorvia/platform/Value.h"
#include "platform/View.h"

namespace quorvia::platform {

class QUORVIA_EXPORT Nib final {
 public:
  using Factory = std::function<std::shared_ptr<View>()>;

  /// Makes views of `className` for layout files; "View", "Label", "Button"
  /// and "TableViewCell" are known already. Main thread.
  static void registerClass(const std::string& className, Factory factory);

  /// nibWithNibName:bundle:: the parsed layout file, or null (with a log line)
  /// when the bundle is null or the file is missing or malformed.
  static std::shared_ptr<Nib> nibWithNibName(const std::string& name,
                                             const std::shared_ptr<Bundle>& bundle);

  explicit Nib(std::string name, Value description)
      : name_(std::move(name)), description_(std::move(description)) {}
  const std::string& name() const { return name_; }
  /// Builds a new view tree, connects outlets and actions to its root, and
  /// sends awakeFromNib to every view in it, root last. Main thread. Throws
  /// platform::Exception on an unknown class.
  std::shared_ptr<View> instantiate() const;

 private:
  std::string name_;
  Value description_;
};

}  // namespace quorvia::platform
