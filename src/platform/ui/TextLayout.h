#pragma once
// Internal: Pango layouts of label text, shared by measuring and drawing so
// that a label draws exactly the lines it was measured with.

#include <pango/pangocairo.h>

#include <string>

#include "platform/Label.h"

namespace quorvia::platform::detail {

/// A layout of `text` in `font` wrapped at `width` points on `context` (one
/// point is one unit). The caller unrefs it.
PangoLayout* makeTextLayout(PangoContext* context, const std::string& text,
                            const std::string& font, double width, TextAlignment alignment);

/// A Pango context for measuring, one per thread, at one unit per point.
PangoContext* measuringContext();

}  // namespace quorvia::platform::detail
