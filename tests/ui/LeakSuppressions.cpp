// Fontconfig keeps its pattern caches for the life of the process and never
// frees them; LeakSanitizer reports them at exit. They are not ours.
extern "C" __attribute__((visibility("default"), used)) const char* __lsan_default_suppressions() {
  return "leak:libfontconfig.so\n";
}
