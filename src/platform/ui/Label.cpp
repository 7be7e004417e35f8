#include "platform/Label.h"

#include "platform/ui/TextLayout.h"

namespace quorvia::platform {

namespace detail {

PangoLayout* makeTextLayout(PangoContext* context, const std::string& text,
                            const std::string& font, double width, TextAlignment alignment) {
  PangoLayout* layout = pango_layout_new(context);
  PangoFontDescription* description = pango_font_description_from_string(font.c_str());
  pango_layout_set_font_description(layout, description);
  pango_font_description_free(description);
  pango_layout_set_text(layout, text.c_str(), static_cast<int>(text.size()));
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
