#include "platform/Renderer.h"

#include <cairo.h>
#include <pango/pangocairo.h>

#include <algorithm>
#include <cmath>
#include <memory>

#include "platform/BlurView.h"
#include "platform/FocusRing.h"
#include "platform/Label.h"
#include "platform/ui/TextLayout.h"

namespace quorvia::platform {
namespace {

// How much the backdrop is shrunk before it is stretched back: the blur radius.
constexpr double kBlurDownscale = 12;
// The dark blur style's tint over the blurred backdrop.
constexpr Color kDarkBlurTint{0.07, 0.07, 0.08, 0.62};
constexpr Color kLightBlurTint{0.97, 0.97, 0.97, 0.6};

void setColor(cairo_t* cr, const Color& c) {
  cairo_set_source_rgba(cr, c.red, c.green, c.blue, c.alpha);
}

void roundedPath(cairo_t* cr, const BezierPath& path) {
  const Rect& r = path.rect;
  const double rx = std::min(path.cornerRadii.width, r.width() / 2);
  const double ry = std::min(path.cornerRadii.height, r.height() / 2);
  auto corner = [&](unsigned bit, double cx, double cy, double a0) {
    if ((path.corners & bit) && rx > 0 && ry > 0) {
      cairo_save(cr);
      cairo_translate(cr, cx, cy);
      cairo_scale(cr, rx, ry);
      cairo_arc(cr, 0, 0, 1, a0, a0 + M_PI / 2);
      cairo_restore(cr);
    } else {
      // Square corner: go to the rectangle's own corner point.
      const double px = a0 == M_PI || a0 == M_PI / 2 ? r.x() : r.maxX();
      const double py = a0 == M_PI || a0 == -M_PI / 2 ? r.y() : r.maxY();
      cairo_line_to(cr, px, py);
    }
  };
  cairo_new_sub_path(cr);
  corner(kRectCornerTopLeft, r.x() + rx, r.y() + ry, M_PI);
  corner(kRectCornerTopRight, r.maxX() - rx, r.y() + ry, -M_PI / 2);
  corner(kRectCornerBottomRight, r.maxX() - rx, r.maxY() - ry, 0);
  corner(kRectCornerBottomLeft, r.x() + rx, r.maxY() - ry, M_PI / 2);
  cairo_close_path(cr);
}

class Painter {
 public:
  Painter(cairo_surface_t* target, cairo_t* cr) : target_(target), cr_(cr) {
    text_ = pango_cairo_create_context(cr);
    pango_cairo_context_set_resolution(text_, 72);
  }
  ~Painter() { g_object_unref(text_); }
  Painter(const Painter&) = delete;
  Painter& operator=(const Painter&) = delete;

  /// `inherited`: the alpha of ancestors that were not drawn as a group.
  void draw(View& view, double inherited = 1) {
    const double alpha = view.presentationAlpha() * inherited;
    if (view.isHidden() || alpha <= 0) return;
    const Rect frame = view.presentationFrame();
    const Rect bounds{{0, 0}, frame.size};
    cairo_save(cr_);
    cairo_translate(cr_, frame.x(), frame.y());
    if (const auto& mask = view.layer().mask()) {
      cairo_save(cr_);
      cairo_translate(cr_, mask->frame().x(), mask->frame().y());
      roundedPath(cr_, mask->path());
      cairo_restore(cr_);
      cairo_clip(cr_);
    }
    auto* blur = dynamic_cast<BlurView*>(&view);
    auto* label = dynamic_cast<Label*>(&view);
    const bool fill = view.backgroundColor().alpha > 0;
    // A translucent view needs an offscreen group only when layers of it overlap;
    // one plain fill (a fading backdrop's tint) takes the alpha in its colour,
    // which spares a window-sized group on every frame of a fade. Text (colour
    // emoji ignore the source alpha) and a real blur always take a group.
    const int layers = (blur || fill ? 1 : 0) + static_cast<int>(view.subviews().size());
    const bool group =
        alpha < 1 && (layers > 1 || (label && !label->text().empty()) || (blur && drawn_));
    const double own = group ? 1 : alpha;
    if (group) cairo_push_group(cr_);
    if (blur) drawBlur(*blur, bounds, own);
    if (fill) {
      setColor(cr_,
               view.backgroundColor().colorWithAlphaComponent(view.backgroundColor().alpha * own));
      cairo_rectangle(cr_, 0, 0, bounds.width(), bounds.height());
      cairo_fill(cr_);
      drawn_ = true;
    }
    if (label) drawText(*label, bounds);
    if (auto* ring = dynamic_cast<FocusRing*>(&view)) drawRing(*ring, bounds, own);
    for (const auto& sub : view.subviews()) draw(*sub, own);
    if (group) {
      cairo_pop_group_to_source(cr_);
      cairo_paint_with_alpha(cr_, alpha);
    }
    cairo_restore(cr_);
  }

 private:
  void drawText(Label& label, const Rect& bounds) {
    if (label.text().empty()) return;
    drawn_ = true;
    pango_cairo_update_context(cr_, text_);
    PangoLayout* layout = detail::makeTextLayout(text_, label.text(), label.font(), bounds.width(),
                                                 label.textAlignment());
    int w = 0, h = 0;
    pango_layout_get_size(layout, &w, &h);
    const double textHeight = static_cast<double>(h) / PANGO_SCALE;
    setColor(cr_, label.textColor());
    cairo_move_to(cr_, 0, std::max(0.0, (bounds.height() - textHeight) / 2));
    pango_cairo_show_layout(cr_, layout);
    g_object_unref(layout);
  }

  // One stroke just inside the bounds, so that it lies on what it surrounds.
  void drawRing(const FocusRing& ring, const Rect& bounds, double alpha) {
    const double half = FocusRing::kLineWidth / 2;
    if (bounds.width() <= FocusRing::kLineWidth || bounds.height() <= FocusRing::kLineWidth) return;
    drawn_ = true;
    const double radius = std::max(0.0, ring.cornerRadius() - half);
    roundedPath(cr_, BezierPath::bezierPathWithRoundedRect(
                         Rect::make(half, half, bounds.width() - 2 * half, bounds.height() - 2 * half),
                         ring.corners(), Size{radius, radius}));
    setColor(cr_, FocusRing::kColor.colorWithAlphaComponent(FocusRing::kColor.alpha * alpha));
    cairo_set_line_width(cr_, FocusRing::kLineWidth);
    cairo_stroke(cr_);
  }

  // Blurs what is already drawn behind the view by shrinking it and stretching
  // it back with bilinear filtering, then tints it by the style.
  void drawBlur(const BlurView& view, const Rect& bounds, double alpha) {
    // Nothing drawn yet in this pass: behind the blur is the cleared, transparent
    // buffer (a host's layer), and a blur of nothing is nothing; only the tint shows.
    const bool anythingBehind = drawn_;
    drawn_ = true;
    if (!anythingBehind) {
      tint(view, bounds, alpha);
      return;
    }
    double x0 = 0, y0 = 0, x1 = bounds.width(), y1 = bounds.height();
    cairo_user_to_device(cr_, &x0, &y0);
    cairo_user_to_device(cr_, &x1, &y1);
    const double devW = x1 - x0, devH = y1 - y0;
    const int smallW = std::max(1, static_cast<int>(std::ceil(devW / kBlurDownscale)));
    const int smallH = std::max(1, static_cast<int>(std::ceil(devH / kBlurDownscale)));
    cairo_surface_flush(target_);
    // Halving steps with bilinear filtering average 2 x 2 pixels each: a box
    // filter much cheaper than one filtered step down.
    double w = devW, h = devH;
    cairo_surface_t* small = nullptr;
    cairo_surface_t* from = target_;
    double fromX = x0, fromY = y0;
    while (true) {
      const bool last = w / 2 < smallW * 1.5 || h / 2 < smallH * 1.5;
      const int toW = last ? smallW : static_cast<int>(std::ceil(w / 2));
      const int toH = last ? smallH : static_cast<int>(std::ceil(h / 2));
      cairo_surface_t* next = shrink(from, fromX, fromY, w, h, toW, toH);
      if (from != target_) cairo_surface_destroy(from);
      from = next;
      fromX = fromY = 0;
      w = toW;
      h = toH;
      if (last) {
        small = next;
        break;
      }
    }

    cairo_save(cr_);
    cairo_scale(cr_, bounds.width() / smallW, bounds.height() / smallH);
    cairo_set_source_surface(cr_, small, 0, 0);
    cairo_pattern_set_filter(cairo_get_source(cr_), CAIRO_FILTER_BILINEAR);
    cairo_pattern_set_extend(cairo_get_source(cr_), CAIRO_EXTEND_PAD);
    cairo_rectangle(cr_, 0, 0, smallW, smallH);
    cairo_fill(cr_);
    cairo_restore(cr_);
    cairo_surface_destroy(small);
    tint(view, bounds, alpha);
  }

  void tint(const BlurView& view, const Rect& bounds, double alpha) {
    const Color& color = view.style() == BlurEffectStyle::kDark ? kDarkBlurTint : kLightBlurTint;
    setColor(cr_, color.colorWithAlphaComponent(color.alpha * alpha));
    cairo_rectangle(cr_, 0, 0, bounds.width(), bounds.height());
    cairo_fill(cr_);
  }

  static cairo_surface_t* shrink(cairo_surface_t* source, double x, double y, double w, double h,
                                 int toW, int toH) {
    cairo_surface_t* out = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, toW, toH);
    cairo_t* c = cairo_create(out);
    cairo_scale(c, toW / w, toH / h);
    cairo_set_source_surface(c, source, -x, -y);
    cairo_pattern_set_filter(cairo_get_source(c), CAIRO_FILTER_BILINEAR);
    cairo_pattern_set_extend(cairo_get_source(c), CAIRO_EXTEND_PAD);
    cairo_set_operator(c, CAIRO_OPERATOR_SOURCE);
    cairo_paint(c);
    cairo_destroy(c);
    return out;
  }

  cairo_surface_t* target_;
  cairo_t* cr_;
  PangoContext* text_;
  bool drawn_ = false;  // whether anything was drawn yet in this pass
};

// Clears what `cr` may touch (its clip) and draws the window over it at its
// own origin, whatever its frame says.
void drawWindow(Window& window, cairo_surface_t* surface, cairo_t* cr, double scale) {
  cairo_set_operator(cr, CAIRO_OPERATOR_CLEAR);
  cairo_paint(cr);
  cairo_set_operator(cr, CAIRO_OPERATOR_OVER);
  cairo_scale(cr, scale, scale);
  Painter painter(surface, cr);
  cairo_translate(cr, -window.presentationFrame().x(), -window.presentationFrame().y());
  painter.draw(window);
}

cairo_surface_t* renderSurface(Window& window) {
  window.layoutIfNeeded();
  const double scale = window.scale() > 0 ? window.scale() : 1;
  const int w = std::max(1, static_cast<int>(std::lround(window.bounds().width() * scale)));
  const int h = std::max(1, static_cast<int>(std::lround(window.bounds().height() * scale)));
  // One frame surface per thread, reused while the size stays: a fresh 4 MB
  // surface per frame costs more in page faults than the drawing itself.
  thread_local std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)> cached(
      nullptr, &cairo_surface_destroy);
  if (!cached || cairo_image_surface_get_width(cached.get()) != w ||
      cairo_image_surface_get_height(cached.get()) != h) {
    cached.reset(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, w, h));
  }
  cairo_surface_t* surface = cairo_surface_reference(cached.get());
  cairo_t* cr = cairo_create(surface);
  drawWindow(window, surface, cr, scale);
  cairo_destroy(cr);
  cairo_surface_flush(surface);
  return surface;
}

}  // namespace

void Renderer::paint(Window& window, const PixelBuffer& buffer,
                     const std::vector<PixelRect>& damage) {
  if (damage.empty()) return;
  window.layoutIfNeeded();
  cairo_surface_t* surface = cairo_image_surface_create_for_data(
      buffer.pixels, CAIRO_FORMAT_ARGB32, buffer.width, buffer.height, buffer.stride);
  cairo_t* cr = cairo_create(surface);
  for (const auto& r : damage) cairo_rectangle(cr, r.x, r.y, r.width, r.height);
  cairo_clip(cr);
  drawWindow(window, surface, cr, window.scale() > 0 ? window.scale() : 1);
  cairo_destroy(cr);
  cairo_surface_flush(surface);
  cairo_surface_destroy(surface);
}

RenderedImage Renderer::render(Window& window) {
  cairo_surface_t* surface = renderSurface(window);
  RenderedImage image;
  image.width = cairo_image_surface_get_width(surface);
  image.height = cairo_image_surface_get_height(surface);
  image.rgba.resize(static_cast<std::size_t>(image.width) * image.height * 4);
  const unsigned char* data = cairo_image_surface_get_data(surface);
  const int stride = cairo_image_surface_get_stride(surface);
  for (int y = 0; y < image.height; ++y) {
    const auto* row = reinterpret_cast<const std::uint32_t*>(data + y * stride);
    std::uint8_t* out = &image.rgba[static_cast<std::size_t>(y) * image.width * 4];
    for (int x = 0; x < image.width; ++x, out += 4) {
      const std::uint32_t p = row[x];
      const unsigned a = p >> 24;
      unsigned r = (p >> 16) & 0xff, g = (p >> 8) & 0xff, b = p & 0xff;
      if (a != 255 && a != 0) {  // opaque pixels, the common case, need no division
        r = std::min(255u, (r * 255 + a / 2) / a);
        g = std::min(255u, (g * 255 + a / 2) / a);
        b = std::min(255u, (b * 255 + a / 2) / a);
      }
      out[0] = static_cast<std::uint8_t>(r);
      out[1] = static_cast<std::uint8_t>(g);
      out[2] = static_cast<std::uint8_t>(b);
      out[3] = static_cast<std::uint8_t>(a);
    }
  }
  cairo_surface_destroy(surface);
  return image;
}

bool Renderer::writePNG(Window& window, const std::filesystem::path& path) {
  cairo_surface_t* surface = renderSurface(window);
  const bool ok = cairo_surface_write_to_png(surface, path.c_str()) == CAIRO_STATUS_SUCCESS;
  cairo_surface_destroy(surface);
  return ok;
}

}  // namespace quorvia::platform
