#!/usr/bin/env bash
# The main job: builds the SDK and runs the host-integration example against
# the platform stand-ins, printing what the SDK asked of the platform.
set -euo pipefail
cd "$(dirname "$0")/.."
case "${1:-}" in -h|--help) sed -n '2,3p' "$0" | sed 's/^# //'; exit 0 ;; esac

bash scripts/setup.sh
echo "== configure"
cmake --preset dev >/dev/null
echo "== build"
cmake --build --preset dev -j "$(nproc)" --target minimal_host
echo "== run"
./build/dev/examples/minimal_host
