#include "platform/Label.h"

#include <pango/pangocairo.h>

#include "platform/ui/ScreenSnapshot.h"
#include "platform/ui/TextLayout.h"

namespace quorvia::platform {

namespace detail {
namespace {

constexpr std::string_view kZeroWidthSpace = "\u200B";
constexpr std::string_view kEllipsis = "\u2026";

bool opensBreak(gunichar c) { return g_unichar_isspace(c) || c == 0x200B; }

// Code points that belong to the character before them: a break before one
// would split what the reader sees as one character.
bool joinsPrevious(gunichar c) {
  return g_unichar_ismark(c) || c == 0x200D || (c >= 0xFE00 && c <= 0xFE0F) ||
         (c >= 0x1F3FB && c <= 0x1F3FF) || (c >= 0xE0020 && c <= 0xE007F) ||
         (c >= 0xE0100 && c <= 0xE01EF);
}

}  // namespace

std::string layoutText(std::string_view text) {
  std::string out;
  std::size_t characters = 0;
  std::size_t run = 0;       // characters since the last break opportunity
  std::size_t runStart = 0;  // where in `out` the current run begins
  gunichar previous = 0;
  const char* p = text.data();
  const char* const end = text.data() + text.size();
  while (p < end) {
    if (characters == kMaxLaidOutCharacters) {
      out += kEllipsis;
      break;
    }
    const gunichar c = g_utf8_get_char_validated(p, end - p);
    const char* next = c < 0x80000000 ? g_utf8_next_char(p) : p + 1;
    if (next > end) next = end;
    ++characters;
    if (opensBreak(c)) {
      run = 0;
      runStart = out.size() + static_cast<std::size_t>(next - p);
    } else if (++run == kLongestUnbrokenRun + 1) {
      // The run just became too long: give it breaks from its start.
      std::string broken;
      gunichar before = 0;
      const char* q = out.data() + runStart;
      const char* const runEnd = out.data() + out.size();
      while (q < runEnd) {
        const gunichar d = g_utf8_get_char(q);
        if (before != 0 && !joinsPrevious(d) && before != 0x200D) broken += kZeroWidthSpace;
        const char* after = g_utf8_next_char(q);
        broken.append(q, after);
        before = d;
        q = after;
      }
      out.resize(runStart);
      out += broken;
    }
    if (run > kLongestUnbrokenRun && !joinsPrevious(c) && previous != 0x200D) {
      out += kZeroWidthSpace;
    }
    if (c < 0x80000000) {
      out.append(p, next);
    } else {
      out += "\uFFFD";  // not UTF-8: Pango would refuse the whole text
    }
    previous = c;
    p = next;
  }
  return out;
}

PangoLayout* makeTextLayout(PangoContext* context, const std::string& text,
                            const std::string& font, double width, TextAlignment alignment) {
  PangoLayout* layout = pango_layout_new(context);
  PangoFontDescription* description = pango_font_description_from_string(font.c_str());
  pango_layout_set_font_description(layout, description);
  pango_font_description_free(description);
  const std::string shown = layoutText(text);
  pango_layout_set_text(layout, shown.c_str(), static_cast<int>(shown.size()));
  pango_layout_set_width(layout, static_cast<int>(width * PANGO_SCALE));
  pango_layout_set_wrap(layout, PANGO_WRAP_WORD_CHAR);
  pango_layout_set_alignment(layout, alignment == TextAlignment::kCenter  ? PANGO_ALIGN_CENTER
                                     : alignment == TextAlignment::kRight ? PANGO_ALIGN_RIGHT
                                                                          : PANGO_ALIGN_LEFT);
  return layout;
}

PangoContext* measuringContext() {
  // The thread's default font map, which the renderer draws with too, so
  // measured and drawn lines agree; it lives as long as the thread.
  struct Holder {
    PangoContext* context = pango_font_map_create_context(pango_cairo_font_map_get_default());
    Holder() { pango_cairo_context_set_resolution(context, 72); }
    ~Holder() { g_object_unref(context); }
  };
  thread_local Holder holder;
  return holder.context;
}

}  // namespace detail

double measureTextHeight(const std::string& text, const std::string& font, double width) {
  PangoLayout* layout = detail::makeTextLayout(detail::measuringContext(), text, font, width,
                                               TextAlignment::kLeft);
  int w = 0, h = 0;
  pango_layout_get_size(layout, &w, &h);
  g_object_unref(layout);
  return static_cast<double>(h) / PANGO_SCALE;
}

void Label::setText(std::string text) {
  if (text == text_) return;
  text_ = std::move(text);
  cachedWidth_ = -1;
  detail::noteScreenChange();
}

void Label::setFont(std::string font) {
  if (font == font_) return;
  font_ = std::move(font);
  cachedWidth_ = -1;
}

double Label::contentHeightForWidth(double width) {
  if (width != cachedWidth_) {
    cachedHeight_ = text_.empty() ? 0 : measureTextHeight(text_, font_, width);
    cachedWidth_ = width;
  }
  return cachedHeight_;
}

}  // namespace quorvia::platform
