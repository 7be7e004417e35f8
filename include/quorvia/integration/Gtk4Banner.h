#pragma once
/// \file
/// The SDK's banner in a GTK 4 window, header-only (the library links no
/// toolkit). The host puts its content into a GtkOverlay; the banner is drawn
/// in a layer on top of it, takes the pointer only where it draws, and
/// follows the window's size and focus.
///
///     GtkWidget* overlay = gtk_overlay_new();
///     gtk_overlay_set_child(GTK_OVERLAY(overlay), the_apps_own_content);
///     gtk_window_set_child(window, overlay);
///     quorvia::integration::GLibMainQueue queue;
///     quorvia::integration::Gtk4Banner banner(GTK_OVERLAY(overlay));  // before the SDK starts
///
/// Lives on the main thread; it keeps the overlay alive while it does.

#include <cairo.h>
#include <gtk/gtk.h>

#include <cmath>
#include <functional>
#include <utility>

#include "quorvia/platform/HostWindow.h"

namespace quorvia::integration {

class Gtk4Banner final {
 public:
  explicit Gtk4Banner(GtkOverlay* overlay)
      : overlay_(GTK_WIDGET(g_object_ref(overlay))),
        area_(GTK_WIDGET(g_object_ref_sink(gtk_drawing_area_new()))),
        host_(initialSize(), 1) {
    // The layer never takes input itself: the overlay's capture phase decides.
    gtk_widget_set_can_target(area_, FALSE);
    gtk_widget_set_hexpand(area_, TRUE);
    gtk_widget_set_vexpand(area_, TRUE);
    gtk_overlay_add_overlay(overlay, area_);
    gtk_drawing_area_set_draw_func(GTK_DRAWING_AREA(area_), &draw, this, nullptr);
    g_signal_connect(area_, "resize", G_CALLBACK(&resized), this);
    g_signal_connect(area_, "realize", G_CALLBACK(&realized), this);

    GtkEventController* input = gtk_event_controller_legacy_new();
    gtk_event_controller_set_propagation_phase(input, GTK_PHASE_CAPTURE);
    g_signal_connect(input, "event", G_CALLBACK(&inputEvent), this);
    gtk_widget_add_controller(overlay_, input);
    input_ = input;

    host_.setRepaintCallback([this] { gtk_widget_queue_draw(area_); });
  }
  ~Gtk4Banner() {
    host_.setRepaintCallback(nullptr);
    if (window_) g_signal_handlers_disconnect_by_data(window_, this);
    g_signal_handlers_disconnect_by_data(area_, this);
    // The window may have gone first, taking the overlay's children with it.
    if (gtk_widget_get_parent(area_) == overlay_) {
      gtk_widget_remove_controller(overlay_, input_);
      gtk_overlay_remove_overlay(GTK_OVERLAY(overlay_), area_);
    }
    g_object_unref(area_);
    g_object_unref(overlay_);
    if (surface_) cairo_surface_destroy(surface_);
  }
  Gtk4Banner(const Gtk4Banner&) = delete;
  Gtk4Banner& operator=(const Gtk4Banner&) = delete;

  /// The SDK's side of the window: accessible elements, keys, focus.
  platform::HostWindow& host() { return host_; }
  /// Called after each time the banner was drawn (for hosts and tests that
  /// watch where the banner is).
  void setPaintedCallback(std::function<void()> painted) { painted_ = std::move(painted); }

 private:
  static platform::Size initialSize() { return {375, 667}; }

  static void draw(GtkDrawingArea*, cairo_t* cr, int width, int height, gpointer data) {
    auto* self = static_cast<Gtk4Banner*>(data);
    platform::HostWindow& host = self->host_;
    const int pw = host.pixelWidth(), ph = host.pixelHeight();
    if (!self->surface_ || cairo_image_surface_get_width(self->surface_) != pw ||
        cairo_image_surface_get_height(self->surface_) != ph) {
      if (self->surface_) cairo_surface_destroy(self->surface_);
      // Cairo's ARGB32 is the SDK's premultiplied B, G, R, A as it stands.
      self->surface_ = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, pw, ph);
      cairo_surface_set_device_scale(self->surface_, host.scale(), host.scale());
      host.invalidate();
    }
    cairo_surface_flush(self->surface_);
    const auto damage = host.paint({cairo_image_surface_get_data(self->surface_), pw, ph,
                                    cairo_image_surface_get_stride(self->surface_)});
    for (const platform::PixelRect& r : damage) {
      cairo_surface_mark_dirty_rectangle(self->surface_, r.x, r.y, r.width, r.height);
    }
    cairo_rectangle(cr, 0, 0, width, height);
    cairo_set_source_surface(cr, self->surface_, 0, 0);
    cairo_fill(cr);
    if (self->painted_) self->painted_();
  }

  static void resized(GtkDrawingArea* area, int width, int height, gpointer data) {
    auto* self = static_cast<Gtk4Banner*>(data);
    if (width > 0 && height > 0) {
      self->host_.setSize({static_cast<double>(width), static_cast<double>(height)},
                          gtk_widget_get_scale_factor(GTK_WIDGET(area)));
    }
  }

  // The window exists once the overlay is in one: follow its focus.
  static void realized(GtkWidget* area, gpointer data) {
    auto* self = static_cast<Gtk4Banner*>(data);
    GtkRoot* root = gtk_widget_get_root(area);
    if (!root || !GTK_IS_WINDOW(root) || self->window_ == GTK_WIDGET(root)) return;
    self->window_ = GTK_WIDGET(root);
    g_signal_connect(root, "notify::is-active", G_CALLBACK(&activeChanged), self);
    activeChanged(G_OBJECT(root), nullptr, self);
  }
  static void activeChanged(GObject* window, GParamSpec*, gpointer data) {
    auto* self = static_cast<Gtk4Banner*>(data);
    const bool active = gtk_window_is_active(GTK_WINDOW(window));
    self->host_.setFocused(active);
    if (!active) self->host_.pointerCancel();
  }

  // Every pointer event of the window passes here first, in the capture
  // phase: the SDK's take it stops it, anything else goes on to the host.
  static gboolean inputEvent(GtkEventControllerLegacy*, GdkEvent* event, gpointer data) {
    auto* self = static_cast<Gtk4Banner*>(data);
    const GdkEventType type = gdk_event_get_event_type(event);
    if (type != GDK_BUTTON_PRESS && type != GDK_BUTTON_RELEASE && type != GDK_MOTION_NOTIFY) {
      return FALSE;
    }
    if (type != GDK_MOTION_NOTIFY && gdk_button_event_get_button(event) != GDK_BUTTON_PRIMARY) {
      return FALSE;
    }
    const platform::Point point = self->pointOf(event);
    platform::PointerAnswer answer;
    if (type == GDK_BUTTON_PRESS) {
      answer = self->host_.pointerDown(point);
    } else if (type == GDK_BUTTON_RELEASE) {
      answer = self->host_.pointerUp(point);
    } else {
      answer = self->host_.pointerMove(point);
    }
    return answer == platform::PointerAnswer::kTaken;
  }

  // The event's position in the overlay's coordinates (points).
  platform::Point pointOf(GdkEvent* event) const {
    double x = 0, y = 0;
    gdk_event_get_position(event, &x, &y);
    GtkNative* native = gtk_widget_get_native(overlay_);
    double dx = 0, dy = 0;
    gtk_native_get_surface_transform(native, &dx, &dy);
    double ox = x - dx, oy = y - dy;
    gtk_widget_translate_coordinates(GTK_WIDGET(native), overlay_, ox, oy, &ox, &oy);
    return {ox, oy};
  }

  GtkWidget* const overlay_;
  GtkWidget* const area_;
  GtkEventController* input_ = nullptr;
  GtkWidget* window_ = nullptr;
  platform::HostWindow host_;
  cairo_surface_t* surface_ = nullptr;
  std::function<void()> painted_;
};

}  // namespace quorvia::integration
