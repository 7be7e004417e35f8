#!/usr/bin/env bash
# Installs the dependencies, builds and runs the test suite.
#   scripts/test.sh            the dev build (Debug)
#   scripts/test.sh --all      dev, then the ci build (optimised), ASan+UBSan and TSan
#   scripts/test.sh asan tsan  the named presets
set -euo pipefail
cd "$(dirname "$0")/.."

case "${1:-}" in
  -h|--help) sed -n '2,5p' "$0" | sed 's/^# //'; exit 0 ;;
  --all) presets=(dev ci asan tsan) ;;
  "") presets=(dev) ;;
  *) presets=("$@") ;;
esac

bash scripts/setup.sh
# Paths relative to the checkout let a fresh clone reuse the compiler cache.
export CCACHE_BASEDIR="$PWD" CCACHE_NOHASHDIR=1
jobs=$(nproc)
for preset in "${presets[@]}"; do
  start=$SECONDS
  echo "== [$preset] configure"
  cmake --preset "$preset" >/dev/null
  echo "== [$preset] build"
  cmake --build --preset "$preset" -j "$jobs"
  echo "== [$preset] test"
  ctest --preset "$preset" -j "$jobs"
  echo "== [$preset] passed in $((SECONDS - start)) s"
done
