#!/usr/bin/env bash
# Installs quorvia into a temporary prefix and builds and runs a small host
# (tests/packaging/consumer) against it, once with find_package(quorvia) and
# once with pkg-config. Each run registers with a local poll service, sees its
# poll presented as a banner and answers it; the service must record the
# answers. The service is $QUORVIA_DEVSERVER, else the dev build's.
#   scripts/package-test.sh            a static libquorvia (the default build)
#   scripts/package-test.sh --shared   a shared libquorvia
# The library is built from a copy of the tree that is deleted before the host
# runs, so the host can only find the installed resource bundle.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
shared=OFF
case "${1:-}" in
  -h|--help) sed -n '2,8p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
  --shared) shared=ON ;;
  "") ;;
  *) echo "unknown option: $1" >&2; exit 2 ;;
esac

work="$(mktemp -d "${TMPDIR:-/tmp}/quorvia-package-XXXXXX")"
server_pid=""
trap '[ -n "$server_pid" ] && kill "$server_pid" 2>/dev/null; rm -rf "$work"' EXIT
devserver="${QUORVIA_DEVSERVER:-$root/build/dev/tools/devserver/quorvia-devserver}"
[ -x "$devserver" ] || {
  echo "package-test: no quorvia-devserver at $devserver (build the dev preset or set QUORVIA_DEVSERVER)"
  exit 1
}
prefix="$work/prefix"
jobs="${QUORVIA_PACKAGE_JOBS:-2}"
# The copy lives in a new directory each run; relative paths let ccache reuse
# the last run's objects.
export CCACHE_BASEDIR="$work" CCACHE_NOHASHDIR=1

echo "== copy the tree"
mkdir -p "$work/src"
(cd "$root" && tar -cf - --exclude=./build --exclude=./.git .) | tar -xf - -C "$work/src"

echo "== build and install (BUILD_SHARED_LIBS=$shared) into $prefix"
cmake -S "$work/src" -B "$work/build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DBUILD_SHARED_LIBS="$shared" -DCMAKE_INSTALL_PREFIX="$prefix" \
  -DQUORVIA_BUILD_TESTS=OFF -DQUORVIA_BUILD_TOOLS=OFF -DQUORVIA_BUILD_BENCH=OFF \
  -DQUORVIA_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$work/build" -j "$jobs"
cmake --install "$work/build" >/dev/null
rm -rf "$work/src" "$work/build"

echo "== installed files"
libdir="$(dirname "$(find "$prefix" -name quorvia.pc -path '*/pkgconfig/*' | head -1)")/.."
status=0
for file in include/quorvia/QuorviaSDK.h include/quorvia/export.h \
    include/quorvia/platform/RunLoop.h \
    share/quorvia/resources/com.quorvia.sdk.ios/QVNotificationHeaderCell.json \
    share/quorvia/resources/com.quorvia.sdk.ios/QVNotificationTextCell.json \
    share/quorvia/resources/com.quorvia.sdk.ios/QVNotificationActionCell.json; do
  [ -f "$prefix/$file" ] || { echo "missing: $file"; status=1; }
done
for file in cmake/quorvia/quorviaConfig.cmake cmake/quorvia/quorviaConfigVersion.cmake \
    cmake/quorvia/quorviaTargets.cmake pkgconfig/quorvia.pc; do
  [ -f "$libdir/$file" ] || { echo "missing: lib/$file"; status=1; }
done
if [ "$shared" = ON ]; then lib="$libdir/libquorvia.so"; else lib="$libdir/libquorvia.a"; fi
[ -e "$lib" ] || { echo "missing: $lib"; status=1; }
# Relocatable: nothing in the pkg-config file names the prefix it was installed to.
if grep -q "$prefix" "$libdir/pkgconfig/quorvia.pc"; then
  echo "quorvia.pc names its install prefix"; status=1
fi
[ "$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --modversion quorvia)" = \
  "$(sed -n 's/^project(quorvia VERSION \([0-9.]*\).*/\1/p' "$root/CMakeLists.txt")" ] ||
  { echo "quorvia.pc has another version than the project"; status=1; }
[ "$status" -eq 0 ] || exit 1
echo "ok"

echo "== a local poll service with one poll"
admin=$(od -An -N16 -tx1 /dev/urandom | tr -d ' \n')
"$devserver" --port 0 --db "$work/devserver.sqlite3" --admin-token "$admin" >"$work/server.log" 2>&1 &
server_pid=$!
listening=""
for _ in $(seq 200); do  # at most 20 s
  listening=$(grep -m1 -o 'listening on http://127.0.0.1:[0-9]*' "$work/server.log" || true)
  [ -n "$listening" ] && break
  kill -0 "$server_pid" 2>/dev/null || break
  sleep 0.1
done
[ -n "$listening" ] || { cat "$work/server.log"; echo "the poll service did not start"; exit 1; }
base=${listening#listening on }
poll=$(curl -sS --fail-with-body -X POST "$base/admin/polls" -H "X-Quorvia-Admin-Token: $admin" \
  -H 'Content-Type: application/json' \
  -d '{"app_token":"consumer-app-token","question":"Installed?","options":[{"text":"Yes"},{"text":"No"}]}')
poll_id=$(printf '%s' "$poll" | grep -o '"id":[0-9]*' | head -1 | cut -d: -f2)
[ -n "$poll_id" ] || { echo "could not create the poll: $poll"; exit 1; }
echo "service $base, poll $poll_id"

consumer="$root/tests/packaging/consumer"
echo "== host with find_package(quorvia)"
cmake -S "$consumer" -B "$work/cmake-host" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-host" >/dev/null
LD_LIBRARY_PATH="$libdir" "$work/cmake-host/quorvia_consumer" "$base" "$poll_id" | grep -v '^log:'

echo "== host with pkg-config"
pcflags=(--cflags --libs)
export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
c++ -std=c++20 -o "$work/pc-host" "$consumer/main.cpp" $(pkg-config "${pcflags[@]}" quorvia)
LD_LIBRARY_PATH="$libdir" "$work/pc-host" "$base" "$poll_id" | grep -v '^log:'

echo "== replies the service recorded"
replies=$(curl -sS --fail-with-body -H "X-Quorvia-Admin-Token: $admin" "$base/admin/polls/$poll_id/replies")
echo "$replies"
[ "$(printf '%s' "$replies" | grep -o '"reply_text":"Yes"' | wc -l)" -eq 2 ] ||
  { echo "the service did not record both answers"; exit 1; }
echo "== packaging passed"
