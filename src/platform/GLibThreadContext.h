#pragma once
// A GLib main context that one thread of the SDK's own runs, and the work
// other threads hand to it: the session bus clients (notifications, the
// keyring, the accessibility bus) each keep theirs off the host's main loop.

#include <glib.h>

#include <deque>
#include <functional>
#include <mutex>

namespace quorvia::platform {

class GLibThreadContext final {
 public:
  /// `priority`: of the handed work against the context's other sources.
  explicit GLibThreadContext(int priority = G_PRIORITY_DEFAULT_IDLE)
      : context_(g_main_context_new()),
        loop_(g_main_loop_new(context_, FALSE)),
        priority_(priority) {}
  ~GLibThreadContext() {
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
  }
  GLibThreadContext(const GLibThreadContext&) = delete;
  GLibThreadContext& operator=(const GLibThreadContext&) = delete;

  GMainContext* context() const { return context_; }
  GMainLoop* loop() const { return loop_; }

  /// Runs `work` on the thread that runs the context. Any thread. The work
  /// passes through our own lock rather than through the GSource, so that the
  /// hand-over is one the thread checker sees.
  void post(std::function<void()> work) {
    {
      std::lock_guard lock(mu_);
      work_.push_back(std::move(work));
    }
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, priority_);
    g_source_set_callback(
        source,
        [](gpointer self) -> gboolean {
          static_cast<GLibThreadContext*>(self)->runWork();
          return G_SOURCE_REMOVE;
        },
        this, nullptr);
    g_source_attach(source, context_);
    g_source_unref(source);
  }

  /// Ends the loop's run. A source, not g_main_loop_quit(): a quit before the
  /// loop runs would be lost.
  void quit() {
    post([loop = loop_] { g_main_loop_quit(loop); });
  }

 private:
  void runWork() {
    std::deque<std::function<void()>> batch;
    {
      std::lock_guard lock(mu_);
      batch.swap(work_);
    }
    for (auto& work : batch) work();
  }

  GMainContext* const context_;
  GMainLoop* const loop_;
  const int priority_;
  std::mutex mu_;
  std::deque<std::function<void()>> work_;  // guarded by mu_
};

}  // namespace quorvia::platform
