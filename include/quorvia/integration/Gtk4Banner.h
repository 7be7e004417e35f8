#pragma once
/// \file
/// The SDK's banner in a GTK 4 window, header-only (the library links no
/// toolkit). The host puts its content into a GtkOverlay; the banner is drawn
/// in a layer on top of it, takes the pointer only where it draws, sees every
/// key of the window first (and keeps only the banner's), and follows the
/// window's size, focus and place on the screen.
///
///     GtkWidget* overlay = gtk_overlay_new();
///     gtk_overlay_set_child(GTK_OVERLAY(overlay), the_apps_own_content);
///     gtk_window_set_child(window, overlay);
///     quorvia::integration::GLibMainQueue queue;
///     quorvia::integration::Gtk4Banner banner(GTK_OVERLAY(overlay));  // before the SDK starts
///
/// Lives on the main thread; it keeps the overlay alive while it does.

#include <cairo.h>
#include <dlfcn.h>
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
    host_.setScreenOriginCallback([this] { return screenOrigin(); });
  }
  ~Gtk4Banner() {
    host_.setRepaintCallback(nullptr);
    host_.setScreenOriginCallback(nullptr);
    if (window_) {
      g_signal_handlers_disconnect_by_data(window_, this);
      gtk_widget_remove_controller(window_, keys_);
      g_object_remove_weak_pointer(G_OBJECT(window_), reinterpret_cast<gpointer*>(&window_));
    }
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

  // The window exists once the overlay is in one: follow its focus, and see
  // its keys before any of its widgets does.
  static void realized(GtkWidget* area, gpointer data) {
    auto* self = static_cast<Gtk4Banner*>(data);
    GtkRoot* root = gtk_widget_get_root(area);
    if (!root || !GTK_IS_WINDOW(root) || self->window_ == GTK_WIDGET(root)) return;
    if (self->window_) {
      g_signal_handlers_disconnect_by_data(self->window_, self);
      gtk_widget_remove_controller(self->window_, self->keys_);
      g_object_remove_weak_pointer(G_OBJECT(self->window_),
                                   reinterpret_cast<gpointer*>(&self->window_));
    }
    self->window_ = GTK_WIDGET(root);
    g_object_add_weak_pointer(G_OBJECT(root), reinterpret_cast<gpointer*>(&self->window_));
    g_signal_connect(root, "notify::is-active", G_CALLBACK(&activeChanged), self);
    GtkEventController* keys = gtk_event_controller_key_new();
    gtk_event_controller_set_propagation_phase(keys, GTK_PHASE_CAPTURE);
    g_signal_connect(keys, "key-pressed", G_CALLBACK(&keyPressed), self);
    g_signal_connect(keys, "key-released", G_CALLBACK(&keyReleased), self);
    gtk_widget_add_controller(self->window_, keys);
    self->keys_ = keys;
    activeChanged(G_OBJECT(root), nullptr, self);
  }

  // The window's keys in the capture phase: one the SDK takes (only while
  // keyboard focus is in the banner, or F6 into it) stops there, so neither
  // the focused widget nor its input method sees it.
  static gboolean keyPressed(GtkEventControllerKey*, guint keyval, guint, GdkModifierType state,
                             gpointer data) {
    auto* self = static_cast<Gtk4Banner*>(data);
    return self->host_.keyDown(keyOf(keyval), modifiersOf(keyval, state)) ==
           platform::EventAnswer::kTaken;
  }
  static void keyReleased(GtkEventControllerKey*, guint keyval, guint, GdkModifierType state,
                          gpointer data) {
    static_cast<Gtk4Banner*>(data)->host_.keyUp(keyOf(keyval), modifiersOf(keyval, state));
  }
  static platform::Key keyOf(guint keyval) {
    using platform::Key;
    switch (keyval) {
      case GDK_KEY_Tab: case GDK_KEY_KP_Tab: case GDK_KEY_ISO_Left_Tab: return Key::kTab;
      case GDK_KEY_Return: case GDK_KEY_KP_Enter: case GDK_KEY_ISO_Enter: return Key::kEnter;
      case GDK_KEY_space: case GDK_KEY_KP_Space: return Key::kSpace;
      case GDK_KEY_Escape: return Key::kEscape;
      case GDK_KEY_Up: case GDK_KEY_KP_Up: return Key::kUp;
      case GDK_KEY_Down: case GDK_KEY_KP_Down: return Key::kDown;
      case GDK_KEY_Left: case GDK_KEY_KP_Left: return Key::kLeft;
      case GDK_KEY_Right: case GDK_KEY_KP_Right: return Key::kRight;
      case GDK_KEY_Home: case GDK_KEY_KP_Home: return Key::kHome;
      case GDK_KEY_End: case GDK_KEY_KP_End: return Key::kEnd;
      case GDK_KEY_F6: return Key::kF6;
      default: return Key::kOther;
    }
  }
  static platform::KeyModifiers modifiersOf(guint keyval, GdkModifierType state) {
    // X reports Shift+Tab as a key of its own, with or without the Shift.
    return {.shift = (state & GDK_SHIFT_MASK) != 0 || keyval == GDK_KEY_ISO_Left_Tab,
            .control = (state & GDK_CONTROL_MASK) != 0, .alt = (state & GDK_ALT_MASK) != 0,
            .super = (state & GDK_SUPER_MASK) != 0};
  }

  // Where the overlay's top-left is on the screen, in pixels. GTK 4 has no
  // call for a window's position (Wayland has none at all); on X11 the X
  // server knows it. Its calls are looked up when they are needed, so that a
  // host neither links libX11 nor gets Xlib's macros from this header; GTK's
  // X11 backend has loaded them.
  platform::Point screenOrigin() const {
    using SurfaceType = GType (*)();
    using SurfaceId = unsigned long (*)(GdkSurface*);
    using XDisplayOf = void* (*)(GdkDisplay*);
    using Translate = int (*)(void*, unsigned long, unsigned long, int, int, int*, int*,
                              unsigned long*);
    using RootOf = unsigned long (*)(void*);
    static const auto surfaceType = reinterpret_cast<SurfaceType>(dlsym(RTLD_DEFAULT, "gdk_x11_surface_get_type"));
    static const auto surfaceId = reinterpret_cast<SurfaceId>(dlsym(RTLD_DEFAULT, "gdk_x11_surface_get_xid"));
    static const auto xDisplayOf = reinterpret_cast<XDisplayOf>(dlsym(RTLD_DEFAULT, "gdk_x11_display_get_xdisplay"));
    static const auto translate = reinterpret_cast<Translate>(dlsym(RTLD_DEFAULT, "XTranslateCoordinates"));
    static const auto rootOf = reinterpret_cast<RootOf>(dlsym(RTLD_DEFAULT, "XDefaultRootWindow"));
    GtkNative* native = gtk_widget_get_native(overlay_);
    GdkSurface* surface = native ? gtk_native_get_surface(native) : nullptr;
    if (!surface || !surfaceType || !surfaceId || !xDisplayOf || !translate || !rootOf ||
        !G_TYPE_CHECK_INSTANCE_TYPE(surface, surfaceType())) {
      return {};
    }
    void* display = xDisplayOf(gdk_surface_get_display(surface));
    int x = 0, y = 0;
    unsigned long child = 0;
    translate(display, surfaceId(surface), rootOf(display), 0, 0, &x, &y, &child);
    // The overlay's place in the surface, in points: the surface's own
    // margin (client-side decorations) and the widgets around the overlay.
    double dx = 0, dy = 0, ox = 0, oy = 0;
    gtk_native_get_surface_transform(native, &dx, &dy);
    gtk_widget_translate_coordinates(overlay_, GTK_WIDGET(native), 0, 0, &ox, &oy);
    const double scale = gdk_surface_get_scale_factor(surface);
    return {x + (dx + ox) * scale, y + (dy + oy) * scale};
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
  GtkEventController* keys_ = nullptr;  // on window_
  GtkWidget* window_ = nullptr;         // cleared when the window goes
  platform::HostWindow host_;
  cairo_surface_t* surface_ = nullptr;
  std::function<void()> painted_;
};

}  // namespace quorvia::integration
