// A small GTK 4 application with polls: a text field and a list of its own,
// with the SDK's banner over them. Everything the SDK needs is in main(),
// between the two "Polls" comments.
#include <gtk/gtk.h>

#include <string>

#include "../common/HostOptions.h"
#include "quorvia/QuorviaSDK.h"
#include "quorvia/integration/GLibMainQueue.h"
#include "quorvia/integration/Gtk4Banner.h"
#include "quorvia/platform/Environment.h"

namespace {

using example::say;

// The application's own content: a text field above a list of notes.
GtkWidget* makeContent() {
  GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 8);
  gtk_widget_set_margin_top(box, 12);
  gtk_widget_set_margin_start(box, 12);
  gtk_widget_set_margin_end(box, 12);
  GtkWidget* entry = gtk_entry_new();
  gtk_entry_set_placeholder_text(GTK_ENTRY(entry), "Write a note");
  g_signal_connect(entry, "changed", G_CALLBACK(+[](GtkEditable* e, gpointer) {
                     say(std::string("typed ") + gtk_editable_get_text(e));
                   }),
                   nullptr);
  gtk_box_append(GTK_BOX(box), entry);
  GtkWidget* list = gtk_list_box_new();
  for (int i = 0; i < 12; ++i) {
    GtkWidget* row = gtk_label_new(("Note " + std::to_string(i + 1)).c_str());
    gtk_widget_set_halign(row, GTK_ALIGN_START);
    gtk_widget_set_margin_top(row, 18);
    gtk_widget_set_margin_bottom(row, 18);
    gtk_list_box_append(GTK_LIST_BOX(list), row);
  }
  g_signal_connect(list, "row-activated",
                   G_CALLBACK(+[](GtkListBox*, GtkListBoxRow* row, gpointer) {
                     say("row " + std::to_string(gtk_list_box_row_get_index(row)));
                   }),
                   nullptr);
  GtkWidget* scroller = gtk_scrolled_window_new();
  gtk_scrolled_window_set_child(GTK_SCROLLED_WINDOW(scroller), list);
  gtk_widget_set_vexpand(scroller, TRUE);
  gtk_box_append(GTK_BOX(box), scroller);
  return box;
}

}  // namespace

int main(int argc, char** argv) {
  const example::HostOptions options = example::parseHostOptions(
      argc, argv, "quorvia-gtk4-host",
      "A small GTK 4 application (a text field and a list) that shows Quorvia polls.");
  gtk_init();
  GtkWidget* window = gtk_window_new();
  gtk_window_set_title(GTK_WINDOW(window), "Quorvia GTK 4 host");
  gtk_window_set_default_size(GTK_WINDOW(window), options.width, options.height);
  GtkWidget* overlay = gtk_overlay_new();
  gtk_overlay_set_child(GTK_OVERLAY(overlay), makeContent());
  gtk_window_set_child(GTK_WINDOW(window), overlay);
  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
  g_signal_connect_swapped(window, "destroy", G_CALLBACK(g_main_loop_quit), loop);
  g_signal_connect(window, "notify::is-active",
                   G_CALLBACK(+[](GtkWindow* w, GParamSpec*, gpointer) {
                     say(gtk_window_is_active(w) ? "focus gained" : "focus lost");
                   }),
                   nullptr);

  // Polls: configure, embed, observe, start.
  using namespace quorvia;
  platform::installEnvironment(
      platform::makeDesktopEnvironment({.appIdentifier = "quorvia-gtk4-host",
                                        .dataDirectory = options.dataDir,
                                        .serviceBaseURL = options.serviceURL,
                                        .pushBroker = options.pushBroker}));
  integration::GLibMainQueue queue;
  integration::Gtk4Banner banner(GTK_OVERLAY(overlay));
  setObserver(example::sayingObserver());
  QuorviaSDK::initWithAppToken(options.appToken, std::nullopt);
  QuorviaSDK::askUserForPushPermissions();
  std::string lastFrames;
  if (options.printFrames)
    banner.setPaintedCallback([&] { example::sayElements(banner.host(), lastFrames); });
  // Polls: end of the setup; the banner follows the window by itself.

  gtk_window_present(GTK_WINDOW(window));
  say("ready");
  g_main_loop_run(loop);
  g_main_loop_unref(loop);
  return 0;
}
