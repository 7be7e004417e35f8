#!/usr/bin/env bash
# Runs the dashboard's browser test; installs playwright-core from the lockfile when missing.
#   tests/dashboard/run.sh DEVSERVER_BINARY SCREENSHOT.png
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
if [ ! -d "$root/node_modules/playwright-core" ]; then
  (cd "$root" && npm ci --no-audit --no-fund)
fi
exec node "$root/tests/dashboard/dashboard.test.mjs" "$@"
