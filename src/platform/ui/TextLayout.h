#pragma once
// Internal: Pango layouts of label text, shared by measuring and drawing so
// that a label draws exactly the lines it was measured with.

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/Label.h"

// Declared as Pango does, so that this header needs no Pango include path.
typedef struct _PangoContext PangoContext;
typedef struct _PangoLayout PangoLayout;

namespace quorvia::platform::detail {

/// At most this many characters (code points) of a label are laid out; a
/// longer text ends in an ellipsis. More than any banner row can show.
inline constexpr std::size_t kMaxLaidOutCharacters = 2000;

/// A run of this many characters without a space wraps by character.
inline constexpr std::size_t kLongestUnbrokenRun = 32;

/// The text as it is handed to Pango: cut to kMaxLaidOutCharacters, and with
/// a break opportunity (U+200B) between the characters of every run longer
/// than kLongestUnbrokenRun. Pango wraps a long word by character in time
/// quadratic in the word's length; with the breaks it is linear.
std::string layoutText(std::string_view text);

/// A layout of `text` in `font` wrapped at `width` points on `context` (one
/// point is one unit), of layoutText(text). The caller unrefs it.
PangoLayout* makeTextLayout(PangoContext* context, const std::string& text,
                            const std::string& font, double width, TextAlignment alignment);

/// A Pango context for measuring, one per thread, at one unit per point.
PangoContext* measuringContext();

}  // namespace quorvia::platform::detail
