#pragma once
/// \file
/// Runs the SDK's main queue from a GLib main context (GTK's, GIO's),
/// header-only: one GSource that waits on the queue's wake descriptor and
/// its next timer, and drains the queue when either is due. An idle SDK
/// wakes nothing.
///
///     quorvia::integration::GLibMainQueue queue;  // the thread-default main context
///
/// Make it on the thread that runs the context (the main thread); it detaches
/// when destroyed.

#include <glib.h>

#include <chrono>
#include <climits>

#include "quorvia/platform/RunLoop.h"

namespace quorvia::integration {

class GLibMainQueue final {
 public:
  /// Attaches to `context` (null: the thread-default context, usually GTK's).
  explicit GLibMainQueue(GMainContext* context = nullptr) {
    static GSourceFuncs funcs = {&prepare, &check, &dispatch, nullptr, nullptr, nullptr};
    source_ = reinterpret_cast<Source*>(g_source_new(&funcs, sizeof(Source)));
    g_source_set_name(&source_->base, "quorvia main queue");
    source_->wake =
        g_source_add_unix_fd(&source_->base, platform::mainRunLoop().wakeFileDescriptor(), G_IO_IN);
    g_source_attach(&source_->base, context ? context : g_main_context_get_thread_default());
  }
  ~GLibMainQueue() {
    g_source_destroy(&source_->base);
    g_source_unref(&source_->base);
  }
  GLibMainQueue(const GLibMainQueue&) = delete;
  GLibMainQueue& operator=(const GLibMainQueue&) = delete;

 private:
  // The poll's timeout: until the queue's next timer, or none.
  static gboolean prepare(GSource*, gint* timeout) {
    *timeout = -1;
    const auto next = platform::mainRunLoop().timeUntilNextTimer();
    if (!next) return FALSE;
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(*next).count();
    *timeout = ms > INT_MAX ? INT_MAX : static_cast<gint>(ms);
    return ms <= 0;
  }
  static gboolean check(GSource* source) {
    // Readable descriptor: work posted from another thread; or a timer fell due.
    if (g_source_query_unix_fd(source, reinterpret_cast<Source*>(source)->wake) & G_IO_IN) {
      return TRUE;
    }
    const auto next = platform::mainRunLoop().timeUntilNextTimer();
    return next && next->count() <= 0;
  }
  static gboolean dispatch(GSource*, GSourceFunc, gpointer) {
    platform::mainRunLoop().drainOnce();
    return G_SOURCE_CONTINUE;
  }

  struct Source {
    GSource base;
    gpointer wake;
  };
  Source* source_ = nullptr;
};

}  // namespace quorvia::integration
