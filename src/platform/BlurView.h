#pragma once
/// \file
/// A visual-effect view with a blur (UIVisualEffectView with UIBlurEffect):
/// the renderer blurs what lies behind it and tints it by the style.

#include "quorvia/export.h"
#include "platform/View.h"

namespace quorvia::platform {

/// Blur styles (UIBlurEffectStyle).
enum class BlurEffectStyle { kExtraLight = 0, kLight = 1, kDark = 2 };

class QUORVIA_EXPORT BlurView final : public View {
 public:
  /// initWithEffect: with a blur of `style`.
  explicit BlurView(BlurEffectStyle style = BlurEffectStyle::kDark) : style_(style) {}
  BlurEffectStyle style() const { return style_; }

 private:
  BlurEffectStyle style_;
};

}  // namespace quorvia::platform
