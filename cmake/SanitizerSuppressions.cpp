// Reports from libraries that are not built with the sanitizers.
//
// Fontconfig keeps its pattern caches for the life of the process and never
// frees them, which LeakSanitizer reports at exit. Pango loads fontconfig's
// configuration on a glib worker thread and waits for it with glib's own
// futex-based locks, which ThreadSanitizer cannot see. Neither is ours.

extern "C" __attribute__((visibility("default"), used)) const char* __lsan_default_suppressions() {
  return "leak:libfontconfig.so\n";
}

extern "C" __attribute__((visibility("default"), used)) const char* __tsan_default_suppressions() {
  return "called_from_lib:libfontconfig.so\nrace:libfontconfig.so\n";
}
