// Fontconfig, which is not built with the sanitizers, keeps its pattern
// caches for the life of the process; the layout and render paths reach it.
extern "C" __attribute__((visibility("default"), used)) const char* __lsan_default_suppressions() {
  return "leak:libfontconfig.so\n";
}
