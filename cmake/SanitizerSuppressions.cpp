// Reports from libraries that are not built with the sanitizers.
//
// Fontconfig keeps its pattern caches for the life of the process and never
// frees them, which LeakSanitizer reports at exit. Pango loads fontconfig's
// configuration on a glib worker thread and waits for it with glib's own
// futex-based locks, which ThreadSanitizer cannot see. The HTTP server library
// of the local poll service and the loopback test servers is a compiled
// library whose worker threads hand buffers over through code ThreadSanitizer
// does not see either. GLib and GIO (the session bus client) hand memory
// between their own threads through futex-based locks as well. None of it is
// ours.

extern "C" __attribute__((visibility("default"), used)) const char* __lsan_default_suppressions() {
  return "leak:libfontconfig.so\n";
}

extern "C" __attribute__((visibility("default"), used)) const char* __tsan_default_suppressions() {
  return "called_from_lib:libfontconfig.so\nrace:libfontconfig.so\nrace:libcpp-httplib.so\n"
         "race:libglib-2.0.so\nrace:libgobject-2.0.so\nrace:libgio-2.0.so\n";
}
