#!/usr/bin/env bash
# Builds the release preset, runs every benchmark and prints one table: each
# figure with the baseline measured in the same run and its target.
#   scripts/bench.sh            build, run, print the table
#   scripts/bench.sh --help     this text
# Also builds a shared libquorvia (build/release-shared) to report its
# stripped size. Raw JSON results are kept in build/release/bench/.
set -euo pipefail
cd "$(dirname "$0")/.."
case "${1:-}" in
  -h|--help) sed -n '2,7p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
  "") ;;
  *) echo "unknown option: $1 (see --help)" >&2; exit 2 ;;
esac

jobs=$(nproc)
benches=(startup_bench idle_bench idle_adapters_bench wide_input_bench networking_bench push_bench push_flood_bench devserver_bench keychain_bench ui_bench
  host_window_bench memory_bench)
out=build/release/bench
echo "== build (release)" >&2
cmake --preset release >/dev/null
cmake --build --preset release -j "$jobs" --target "${benches[@]}" >/dev/null
mkdir -p "$out"

echo "== shared library size" >&2
cmake -S . -B build/release-shared -G Ninja -DCMAKE_BUILD_TYPE=Release -DBUILD_SHARED_LIBS=ON \
  -DQUORVIA_BUILD_TESTS=OFF -DQUORVIA_BUILD_TOOLS=OFF -DQUORVIA_BUILD_BENCH=OFF \
  -DQUORVIA_BUILD_EXAMPLES=OFF >/dev/null
cmake --build build/release-shared -j "$jobs" --target quorvia >/dev/null
library="$(readlink -f build/release-shared/src/libquorvia.so)"
cp "$library" "$out/libquorvia.so.stripped"
strip --strip-unneeded "$out/libquorvia.so.stripped"
printf '{"unstripped": %d, "stripped": %d}\n' "$(stat -c %s "$library")" \
  "$(stat -c %s "$out/libquorvia.so.stripped")" >"$out/size.json"

# SDL waits without polling only on a real display: the adapters' idle figures run on one.
xvfb_pid=""
trap '[ -n "$xvfb_pid" ] && kill "$xvfb_pid" 2>/dev/null' EXIT
if [ -z "${DISPLAY:-}" ] && command -v Xvfb >/dev/null; then
  exec {display_fd}< <(Xvfb -displayfd 1 -screen 0 640x480x24 -nolisten tcp 2>/dev/null & echo "pid $!")
  number=""
  while [ -z "$number" ] && read -r -t 30 -u "$display_fd" line; do
    case "$line" in
      pid\ *) xvfb_pid=${line#pid } ;;
      *) number=$line ;;
    esac
  done
  [ -n "$number" ] && export DISPLAY=":$number"
fi

for bench in "${benches[@]}"; do
  echo "== run $bench" >&2
  path="$(find build/release/bench -maxdepth 2 -type f -name "$bench" -executable | head -1)"
  # JSON to a file: some benchmarks print a summary of their own on the console.
  timeout 900 "$path" --benchmark_out="$out/$bench.json" --benchmark_out_format=json >"$out/$bench.txt" 2>&1
done

python3 - "$out" <<'PY'
import json, os, sys

out = sys.argv[1]
runs = {}
for name in os.listdir(out):
    if not name.endswith("_bench.json"):
        continue
    with open(os.path.join(out, name)) as f:
        data = json.load(f)
    for b in data["benchmarks"]:
        base = b.get("run_name", b["name"]).split("/")[0]
        # Prefer the median of repetitions, else the single run.
        if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
            continue
        if base in runs and runs[base].get("aggregate_name") == "median":
            continue
        runs[base] = b

scale = {"ns": 1e-3, "us": 1.0, "ms": 1e3, "s": 1e6}

def us(name):
    b = runs.get(name)
    return None if b is None else b["real_time"] * scale[b["time_unit"]]

def fmt_time(v):
    if v is None:
        return "n/a"
    if v < 1:
        return f"{v * 1000:.1f} ns"
    return f"{v / 1000:.2f} ms" if v >= 1000 else f"{v:.2f} µs"

with open(os.path.join(out, "size.json")) as f:
    size = json.load(f)
memory = runs.get("BM_ResidentMemoryOfStartedSdkWithBanner", {})

rows = []
def row(figure, target, value, shown, baseline, limit):
    ok = "n/a" if value is None or limit is None else ("yes" if value <= limit else "NO")
    rows.append((figure, target, shown, baseline, ok))

t = us("BM_Startup")
row("start-up (initWithAppToken)", "startup_bench", t, fmt_time(t),
    f"empty call {fmt_time(us('BM_EmptyCall'))}", 200)
t = us("BM_FirstStartup")
row("first start-up (creates the instance)", "startup_bench", t, fmt_time(t),
    f"empty call {fmt_time(us('BM_EmptyCall'))}", None)
# Measured in alternating rounds against the raw handle; figures are medians.
side = runs.get("BM_RoundTripSideBySide", {})
raw = side.get("raw_us")
t = side.get("client_us")
ratio = side.get("ratio")
rows.append(("request round trip (cacheless GET)", "networking_bench",
             "n/a" if t is None else f"{fmt_time(t)} ({ratio:.2f} x)",
             f"raw libcurl multi {fmt_time(raw)}",
             "n/a" if ratio is None else ("yes" if ratio <= 1.10 else "NO")))
t = us("BM_GetJsonCachelessSixteenInFlight")
rate = runs.get("BM_GetJsonCachelessSixteenInFlight", {}).get("items_per_second")
rows.append(("16 requests in flight", "networking_bench",
             "n/a" if rate is None else f"{rate:,.0f} requests/s",
             f"raw libcurl {0 if raw is None else 1e6 / raw:,.0f} requests/s one at a time",
             "n/a" if rate is None else ("yes" if rate >= 10000 else "NO")))
share = runs.get("BM_CpuWhileWaitingOnSilentServer", {}).get("cpu_share")
rows.append(("CPU while a request waits (silent server)", "networking_bench",
             "n/a" if share is None else f"{share * 100:.2f}% of a core",
             "-", "-"))
idle = runs.get("BM_IdleWakeupsPerSecond", {}).get("wakeups_per_second")
rows.append(("idle started SDK: wake-ups per second", "idle_bench",
             "n/a" if idle is None else f"{idle:.2f}", "-",
             "n/a" if idle is None else ("yes" if idle == 0 else "NO")))
for adapter in ("GLib", "Qt", "Sdl"):
    idle = runs.get(f"BM_Idle{adapter}WakeupsPerSecond", {}).get("wakeups_per_second")
    rows.append((f"  through the {adapter} adapter", "idle_adapters_bench",
                 "n/a" if idle is None else f"{idle:.2f}", "the same loop without it",
                 "n/a" if idle is None else ("yes" if idle == 0 else "NO")))
t = us("BM_DecodeMillionKeyObject")
row("decode a 1,000,000-key object (16.8 MB)", "wide_input_bench", t, fmt_time(t), "-", 1e6)
for name, label in (("BM_LongestMainThreadHoldOfWideFetchAnswer",
                     "main queue held by a 250,000-key fetch answer"),
                    ("BM_LongestMainThreadHoldOfWidePush", "main queue held by a 200,000-key push")):
    held = runs.get(name, {}).get("longest_ms")
    rows.append((label, "wide_input_bench", "n/a" if held is None else f"{held:.2f} ms",
                 "60 Hz frame 16.67 ms",
                 "n/a" if held is None else ("yes" if held < 16.67 else "NO")))
push = runs.get("BM_PushToHandler", {})
p99 = push.get("p99_ms")
rows.append(("push: publish to delegate, p99", "push_bench",
             "n/a" if p99 is None else f"{p99:.3f} ms",
             "n/a" if p99 is None else f"p50 {push.get('p50_ms', 0):.3f} ms",
             "n/a" if p99 is None else ("yes" if p99 < 20 else "NO")))
flood = runs.get("BM_MemoryAfterPushFlood", {})
for before, after, label, limit in (
        ("rss_before_kb", "rss_after_kb", "push flood: resident growth over 100,000 pushes", 4096),
        ("heap_before_kb", "heap_after_kb", "push flood: heap growth over 100,000 pushes", 1024)):
    grown = None if after not in flood else flood[after] - flood[before]
    row(label, "push_flood_bench", grown, "n/a" if grown is None else f"{grown / 1024:.2f} MB",
        "n/a" if grown is None else f"before {flood[before] / 1024:.2f} MB", limit)
t = us("BM_PushOnePollToTenThousandDevices")
row("push fan-out: one poll to 10,000 devices", "devserver_bench", t, fmt_time(t), "-", 2e6)
for name, label in (("BM_SlideInFrames", "window: slide-in frame, p99"),
                    ("BM_ExpandFrames", "window: expand frame, p99"),
                    ("BM_FocusMoveFrames", "window: keyboard focus move frame, p99")):
    frames = runs.get(name, {})
    p99 = frames.get("p99_ms")
    rows.append((label, "host_window_bench", "n/a" if p99 is None else f"{p99:.2f} ms",
                 "n/a" if p99 is None else f"p50 {frames.get('p50_ms', 0):.2f} ms",
                 "n/a" if p99 is None else ("yes" if p99 < 4 else "NO")))
idle_paints = runs.get("BM_IdleShownBannerRepaints", {}).get("repaints")
rows.append(("window: repaints of an idle shown banner", "host_window_bench",
             "n/a" if idle_paints is None else f"{idle_paints:.0f}", "-",
             "n/a" if idle_paints is None else ("yes" if idle_paints == 0 else "NO")))
t = us("BM_GetJsonCachedHit")
row("cached hit", "networking_bench", t, fmt_time(t), f"raw libcurl {fmt_time(raw)}", 5)
sq = us("BM_RawSQLitePointRead")
t = us("BM_PasswordForService")
row("keychain read (passwordForService)", "keychain_bench", t, fmt_time(t),
    f"raw SQLite read {fmt_time(sq)}", 10)
# Alternating one read each, on a keyring the benchmark starts; medians and p99.
side = runs.get("BM_KeyringReadSideBySide", {})
ratio = side.get("ratio_p50")
rows.append(("keychain read through the keyring, p50 (p99)", "keychain_bench",
             "n/a" if ratio is None else
             f"{fmt_time(side['sdk_p50_us'])} ({fmt_time(side['sdk_p99_us'])}), {ratio:.2f} x",
             "n/a" if ratio is None else
             f"raw libsecret lookup {fmt_time(side['raw_p50_us'])} ({fmt_time(side['raw_p99_us'])})",
             "n/a" if ratio is None else ("yes" if ratio <= 1.5 else "NO")))
t = us("BM_DurableSave")
row("keychain durable save", "keychain_bench", t, fmt_time(t), "-", None)
t = us("BM_RenderExpandedBanner")
row("frame render (expanded banner, 750x1334)", "ui_bench", t, fmt_time(t), "60 Hz frame 16.67 ms", 8000)
t = us("BM_LayoutPass")
row("layout pass (banner table)", "ui_bench", t, fmt_time(t), "-", 500)
s = size["stripped"]
row("libquorvia.so stripped size", "quorvia (shared)", s, f"{s:,} B",
    f"unstripped {size['unstripped']:,} B", 1 << 20)
def mb(kb):
    return "n/a" if kb is None else f"{kb / 1024:.2f} MB"
# Each phase's resident growth since before the SDK ran, and its anonymous
# part (heap, stacks); the rest is file-backed: pages of Pango, Cairo,
# HarfBuzz, FreeType and the fonts that the first frame touches, shared with
# every other process that maps them. memory_bench.txt says where it went.
for key, label, target in (("idle", "resident memory added: started and idle", None),
                           ("fetched", "  after the first fetch", None),
                           ("banner", "  a banner shown and one frame", 4096),
                           ("hidden", "  after the banner hid", None)):
    added = memory.get(f"{key}_rss_kb")
    anon = memory.get(f"{key}_anon_kb")
    row(label, "memory_bench", added, mb(added),
        "n/a" if anon is None else f"anonymous {mb(anon)}", target)
targets = {
    "start-up (initWithAppToken)": "< 200 µs",
    "first start-up (creates the instance)": "-",
    "request round trip (cacheless GET)": "<= 1.10 x raw libcurl",
    "16 requests in flight": ">= 10,000 requests/s",
    "CPU while a request waits (silent server)": "-",
    "idle started SDK: wake-ups per second": "0",
    "  through the GLib adapter": "0",
    "  through the Qt adapter": "0",
    "  through the Sdl adapter": "0",
    "decode a 1,000,000-key object (16.8 MB)": "< 1 s",
    "main queue held by a 250,000-key fetch answer": "< 16.67 ms",
    "main queue held by a 200,000-key push": "< 16.67 ms",
    "push: publish to delegate, p99": "< 20 ms",
    "push flood: resident growth over 100,000 pushes": "< 4 MB",
    "push flood: heap growth over 100,000 pushes": "< 1 MB",
    "push fan-out: one poll to 10,000 devices": "< 2 s",
    "window: slide-in frame, p99": "< 4 ms",
    "window: keyboard focus move frame, p99": "< 4 ms",
    "window: expand frame, p99": "< 4 ms",
    "window: repaints of an idle shown banner": "0",
    "cached hit": "< 5 µs",
    "keychain read (passwordForService)": "< 10 µs",
    "keychain read through the keyring, p50 (p99)": "<= 1.5 x raw libsecret",
    "keychain durable save": "-",
    "frame render (expanded banner, 750x1334)": "< 8 ms",
    "layout pass (banner table)": "< 0.5 ms",
    "libquorvia.so stripped size": "< 1 MB",
    "resident memory added: started and idle": "-",
    "  after the first fetch": "-",
    "  a banner shown and one frame": "< 4 MB",
    "  after the banner hid": "-",
}
header = ("figure", "benchmark target", "measured", "baseline (same run)", "target", "met")
table = [header] + [(f, b, m, base, targets[f], ok) for (f, b, m, base, ok) in rows]
widths = [max(len(r[i]) for r in table) for i in range(len(header))]
for i, r in enumerate(table):
    print("  ".join(c.ljust(widths[j]) for j, c in enumerate(r)).rstrip())
    if i == 0:
        print("  ".join("-" * w for w in widths))
PY
