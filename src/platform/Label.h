#pragma once
/// \file
/// A text label (UILabel) that wraps its text over as many lines as it
/// needs, measured and drawn with Pango. Main thread.

#include <string>

#include "quorvia/export.h"
#include "platform/View.h"

namespace quorvia::platform {

enum class TextAlignment { kLeft, kCenter, kRight };

class QUORVIA_EXPORT Label : public View {
 public:
  Label() { setAccessibilityRole(AccessibleRole::kLabel); }
  /// Read by its text unless a name was set.
  std::optional<std::string> accessibilityLabel() const override {
    if (auto label = View::accessibilityLabel()) return label;
    return text_;
  }

  const std::string& text() const { return text_; }
  void setText(std::string text);
  /// A Pango font description, e.g. "DejaVu Sans Bold 17" (sizes in points).
  const std::string& font() const { return font_; }
  void setFont(std::string font);
  const Color& textColor() const { return textColor_; }
  void setTextColor(Color color) { textColor_ = color; }
  TextAlignment textAlignment() const { return alignment_; }
  void setTextAlignment(TextAlignment alignment) { alignment_ = alignment; }

  /// Height of the wrapped text at `width`, cached per text, font and width.
  double contentHeightForWidth(double width) override;

 private:
  std::string text_;
  std::string font_ = "DejaVu Sans 17";
  Color textColor_ = Color::blackColor();
  TextAlignment alignment_ = TextAlignment::kLeft;
  double cachedWidth_ = -1;
  double cachedHeight_ = 0;
};

/// Measures `text` in `font` wrapped at `width` points; its height in points.
QUORVIA_EXPORT double measureTextHeight(const std::string& text, const std::string& font,
                                        double width);

}  // namespace quorvia::platform
