#!/usr/bin/env bash
# Builds the libFuzzer targets (clang 14, ASan + UBSan) and runs each one.
#   scripts/fuzz.sh                 every target for 30 s
#   scripts/fuzz.sh 600             every target for 10 minutes
#   scripts/fuzz.sh 60 fuzz_url     the named targets only
# New inputs go to build/fuzz/corpus/<target>; a crash stops the run with the
# reproducer's path (run the target on that file to replay it).
set -euo pipefail
cd "$(dirname "$0")/.."
case "${1:-}" in -h|--help) sed -n '2,7p' "$0" | sed 's/^# //'; exit 0 ;; esac

seconds="${1:-30}"
shift || true
bash scripts/setup.sh
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)"

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  mapfile -t targets < <(find build/fuzz/fuzz -maxdepth 1 -type f -name 'fuzz_*' -executable -printf '%f\n' | sort)
fi
for target in "${targets[@]}"; do
  seeds="fuzz/${target#fuzz_}/corpus"
  work="build/fuzz/corpus/$target"
  mkdir -p "$work"
  echo "== $target: ${seconds} s (seeds: $seeds)"
  log="build/fuzz/$target.log"
  rc=0
  ./build/fuzz/fuzz/"$target" -max_total_time="$seconds" -max_len=65536 -timeout=10 \
    -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="build/fuzz/$target-" \
    "$work" "$seeds" >"$log" 2>&1 || rc=$?
  grep -E '^(Done|==[0-9]+==ERROR|SUMMARY|stat::number_of_executed_units)' "$log" || true
  if [ "$rc" -ne 0 ]; then
    tail -40 "$log"
    echo "== $target FAILED (exit $rc, log $log)"
    exit 1
  fi
done
echo "== fuzzing passed: ${#targets[@]} targets, ${seconds} s each"
