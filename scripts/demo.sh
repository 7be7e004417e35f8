#!/usr/bin/env bash
# The main job: builds the local poll service and the host simulator, creates a poll, and runs
# the SDK end to end: launch, device registration, became active, fetch, banner, snapshots of
# the collapsed and expanded banner, an answer; then prints the replies the service recorded
# and where the two PNGs are.
#   scripts/demo.sh            everything (installs missing Debian packages first)
#   scripts/demo.sh --no-setup skip the package check (the tools are still built)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

setup=1
case "${1:-}" in
  -h|--help) sed -n '2,7p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
  --no-setup) setup=0 ;;
  "") ;;
  *) echo "demo: unknown argument $1 (see --help)" >&2; exit 2 ;;
esac

step() { printf '\n== %s\n' "$*"; }
fail() { printf '\ndemo: FAILED: %s\n' "$*" >&2; exit 1; }

app_token=demo-app
script=docs/examples/demo.jsonl
png_dir=$root/build/demo
work=$(mktemp -d "${TMPDIR:-/tmp}/quorvia-demo.XXXXXX")
server_pid=""

cleanup() {
  local status=$?
  if [ -n "$server_pid" ] && kill -0 "$server_pid" 2>/dev/null; then
    kill "$server_pid" 2>/dev/null || true
    wait "$server_pid" 2>/dev/null || true
    echo "demo: service stopped"
  fi
  if [ "$status" -ne 0 ]; then
    echo "demo: logs kept in $work (server.log, events.jsonl)" >&2
  else
    rm -rf "$work"
  fi
}
trap cleanup EXIT

if [ "$setup" -eq 1 ]; then
  step "installing packages (scripts/setup.sh)"
  bash scripts/setup.sh
fi
for tool in cmake curl python3; do
  command -v "$tool" >/dev/null || fail "$tool is not installed (run scripts/setup.sh)"
done

step "configuring and building quorvia-devserver and quorvia-sim (preset dev)"
cmake --preset dev >/dev/null || fail "cmake could not configure the dev preset"
cmake --build --preset dev -j "$(nproc)" --target quorvia-devserver quorvia-sim ||
  fail "the build failed"
devserver=$root/build/dev/tools/devserver/quorvia-devserver
sim=$root/build/dev/tools/sim/quorvia-sim

step "starting the poll service on a free loopback port"
admin_token=$(python3 -c 'import secrets; print(secrets.token_hex(16))')
"$devserver" --host 127.0.0.1 --port 0 --db "$work/devserver.sqlite3" \
  --admin-token "$admin_token" >"$work/server.log" 2>&1 &
server_pid=$!
port=""
for _ in $(seq 100); do
  port=$(sed -n 's|^listening on http://127.0.0.1:\([0-9]*\)$|\1|p' "$work/server.log")
  [ -n "$port" ] && break
  kill -0 "$server_pid" 2>/dev/null || { cat "$work/server.log" >&2; fail "the service exited at start"; }
  sleep 0.1
done
[ -n "$port" ] || fail "the service did not report its port within 10 s"
base=http://127.0.0.1:$port
echo "service: $base (pid $server_pid, database $work/devserver.sqlite3)"
echo "dashboard: $base/?token=$admin_token"

step "creating a poll for app \"$app_token\" through the admin API"
poll_body=$(cat <<EOF
{"app_token": "$app_token",
 "question": "How was your trip today? 🚆",
 "options": [{"text": "👍 Loved it"},
             {"text": "🤔 It was fine"},
             {"text": "👎 Not really", "link": "https://example.com/feedback"}]}
EOF
)
created=$(curl -sS --fail-with-body -X POST "$base/admin/polls" \
  -H "X-Quorvia-Admin-Token: $admin_token" -H 'Content-Type: application/json' \
  --data-binary "$poll_body") ||
  fail "the service refused the poll: $created"
poll_id=$(printf '%s' "$created" | python3 -c 'import json,sys; print(json.load(sys.stdin)["id"])') ||
  fail "unexpected answer to the poll creation: $created"
echo "poll $poll_id: $created"

step "running the host simulator ($script)"
rm -f "$png_dir/banner-collapsed.png" "$png_dir/banner-expanded.png"
mkdir -p "$png_dir"
# Each event is printed as it arrives; the whole stream is kept for the checks below.
QUORVIA_SERVICE_BASE_URL=$base "$sim" --script "$script" --data-dir "$work/app-data" \
    --png-dir "$png_dir" 2>"$work/sim.stderr" | tee "$work/events.jsonl" |
  python3 -u -c '
import json, sys
for line in sys.stdin:
    e = json.loads(line)
    kind = e.pop("event")
    if kind == "log":
        print("  sdk:", e["line"])
        if e["line"].startswith("QuorviaSDK: Failed to set user info"):
            print("       (its two user-info messages are swapped on purpose: this one means it was sent)")
    elif kind == "state":
        b = e["banner"]
        banner = "none" if b is None else "%s, %s" % (
            "expanded" if b["expanded"] else "collapsed", json.dumps(b["question"], ensure_ascii=False))
        print("  state: access token %s, banner %s" % ("stored" if e["accessToken"] else "none", banner))
    else:
        print("  %s: %s" % (kind, json.dumps(e, ensure_ascii=False)))
' || fail "the simulator did not run to the end (see $work/sim.stderr)"

step "checking what happened"
python3 - "$work/events.jsonl" "$png_dir" <<'EOF' || fail "the run did not go as expected"
import json, os, sys
events = [json.loads(line) for line in open(sys.argv[1])]
logs = [e["line"] for e in events if e["event"] == "log"]
states = [e for e in events if e["event"] == "state"]
problems = []
def check(ok, what):
    print("  %s %s" % ("ok  " if ok else "FAIL", what))
    if not ok:
        problems.append(what)
check(not [e for e in events if e["event"] == "error"], "no command was refused")
check("QuorviaSDK: Successfully registered device push token." in logs,
      "the device registered its push token")
check(len(states) >= 4 and states[0]["accessToken"], "the access token is in the keychain")
check(any(l.startswith("QuorviaSDK: Presenting poll: ") for l in logs), "a poll was fetched and presented")
check(len(states) >= 4 and states[1]["banner"] and not states[1]["banner"]["expanded"],
      "the banner slid in collapsed")
check(len(states) >= 4 and states[2]["banner"] and states[2]["banner"]["expanded"],
      "tapping the card expanded it")
check(any(l.startswith("QuorviaSDK: Successfuly sent reply: ") for l in logs), "the answer was sent")
check(len(states) >= 4 and not states[3]["presentedPollView"], "the banner went away")
check(len(states) >= 5 and not states[4]["presentedPollView"], "the answered poll is not offered again")
for name in ("banner-collapsed.png", "banner-expanded.png"):
    path = os.path.join(sys.argv[2], name)
    check(os.path.getsize(path) > 10000 if os.path.exists(path) else False, "wrote " + name)
sys.exit(1 if problems else 0)
EOF

step "replies recorded by the service for poll $poll_id"
replies=$(curl -sS --fail-with-body -H "X-Quorvia-Admin-Token: $admin_token" \
  "$base/admin/polls/$poll_id/replies") ||
  fail "could not read the replies: $replies"
printf '%s' "$replies" | python3 -c '
import json, sys
replies = json.load(sys.stdin)["replies"]
for r in replies:
    d = r["device"]
    print("  reply %d at %s: %s  (device %d, push token %s, user info %s)" % (
        r["id"], r["created_at"], json.dumps(r["reply_text"], ensure_ascii=False), d["id"],
        d["push_token"], json.dumps(d["user_info"], ensure_ascii=False)))
sys.exit(0 if len(replies) == 1 and replies[0]["reply_text"] == "👍 Loved it"
         and replies[0]["device"]["user_info"] else 1)
' || fail "the service did not record the answer \"👍 Loved it\" with the user info: $replies"

step "done"
echo "collapsed banner: $png_dir/banner-collapsed.png"
echo "expanded banner:  $png_dir/banner-expanded.png"
