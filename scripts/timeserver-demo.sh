#!/usr/bin/env bash
# The library's main job, end to end: starts the sample server
# quen-timeserver in the background on the embedded default registry store,
# asks it for the time with quen, shows the answer, and stops it with
# SIGTERM through its pid file. Exits non-zero when any step fails.
#   bash scripts/timeserver-demo.sh [BUILD_DIR]     (default build/release)
set -euo pipefail
build="${1:-build/release}"
server="$build/examples/timeserver/quen-timeserver"
quen="$build/tools/quen/quen"
pidfile="${TMPDIR:-/tmp}/quen-timeserver.$$.pid"
log="${TMPDIR:-/tmp}/quen-timeserver.$$.log"

"$server" -trace s -pidfile "$pidfile" >"$log" 2>&1 &
started=$!
trap 'kill -9 "$started" 2>/dev/null || true' EXIT

answer=""
for _ in $(seq 100); do
  if answer=$("$quen" net line 127.0.0.1:7070 --send utc 2>/dev/null) && [ -n "$answer" ]; then break; fi
  answer=""
  kill -0 "$started" 2>/dev/null || { echo "quen-timeserver ended early:"; cat "$log"; exit 1; }
  sleep 0.1
done
[ -n "$answer" ] || { echo "quen-timeserver did not answer on 127.0.0.1:7070"; cat "$log"; exit 1; }
echo "quen-timeserver (pid $(cat "$pidfile")) says: $answer"

kill -TERM "$(cat "$pidfile")"
wait "$started"
echo "quen-timeserver stopped cleanly"
rm -f "$pidfile" "$log"
