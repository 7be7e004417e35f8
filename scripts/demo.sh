#!/usr/bin/env bash
# The main job: builds the local poll service and the host simulator, starts a mosquitto
# broker and the service on loopback, and runs the SDK end to end: launch, a device token from
# the broker, registration, a poll pushed from the service's admin API, the banner, snapshots
# of it collapsed and expanded, an answer; then a second poll fetched when the app becomes
# active, answered too; then a push to the device while it is offline that survives a restart
# of the broker. Prints every step, checks each, and prints the replies the service recorded
# and where the PNGs are.
#   scripts/demo.sh            everything (installs missing Debian packages first)
#   scripts/demo.sh --no-setup skip the package check (the tools are still built)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

setup=1
case "${1:-}" in
  -h|--help) sed -n '2,8p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
  --no-setup) setup=0 ;;
  "") ;;
  *) echo "demo: unknown argument $1 (see --help)" >&2; exit 2 ;;
esac

step() { printf '\n== %s\n' "$*"; }
fail() { printf '\ndemo: FAILED: %s\n' "$*" >&2; exit 1; }

png_dir=$root/build/demo
work=$(mktemp -d "${TMPDIR:-/tmp}/quorvia-demo.XXXXXX")

cleanup() {
  local status=$?
  if [ "$status" -ne 0 ]; then
    echo "demo: logs kept in $work (broker.log, server.log, sim.stderr; the broker's store in broker/)" >&2
  else
    rm -rf "$work"
  fi
}
trap cleanup EXIT

if [ "$setup" -eq 1 ]; then
  step "installing packages (scripts/setup.sh)"
  bash scripts/setup.sh
fi
export PATH="$PATH:/usr/sbin"  # mosquitto lives there
for tool in cmake python3 mosquitto; do
  command -v "$tool" >/dev/null || fail "$tool is not installed (run scripts/setup.sh)"
done

step "configuring and building quorvia-devserver and quorvia-sim (preset dev)"
cmake --preset dev >/dev/null || fail "cmake could not configure the dev preset"
cmake --build --preset dev -j "$(nproc)" --target quorvia-devserver quorvia-sim ||
  fail "the build failed"
devserver=$root/build/dev/tools/devserver/quorvia-devserver
sim=$root/build/dev/tools/sim/quorvia-sim
host=""
# The desktop host is built where SDL2 is found (scripts/setup.sh installs it).
if cmake --build --preset dev -j "$(nproc)" --target quorvia-desktop-host >/dev/null 2>&1; then
  host=$root/build/dev/examples/quorvia-desktop-host
fi

step "running the demo: broker, poll service and host simulator on loopback"
rm -f "$png_dir"/banner-*.png "$png_dir"/fetched-*.png "$png_dir"/window-*.png
mkdir -p "$png_dir"
python3 -u scripts/demo_driver.py --devserver "$devserver" --sim "$sim" --host "$host" \
  --work "$work" --png-dir "$png_dir" || fail "the demo did not go as expected"

step "done"
echo "pushed poll, collapsed:  $png_dir/banner-collapsed.png"
echo "pushed poll, expanded:   $png_dir/banner-expanded.png"
echo "fetched poll, expanded:  $png_dir/fetched-expanded.png"
[ -f "$png_dir/window-expanded.png" ] &&
  echo "the real window:         $png_dir/window-collapsed.png, $png_dir/window-expanded.png"
