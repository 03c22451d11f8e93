#!/usr/bin/env bash
# The long reliability runs, kept out of scripts/test.sh and .ci/run:
#   fuzz      every libFuzzer target for FUZZ_SECONDS (default 1800), one at
#             a time, starting from fuzz/corpus/<target>/ and merging what it
#             found back into it, minimised (-merge=1)
#   valgrind  every unit-test program (or those named in VALGRIND_TESTS)
#             under valgrind memcheck (definite leaks are errors), from a
#             build without sanitizers
#   soak      the sample server and each client against its real local
#             server for SOAK_SECONDS each (default 600), resident memory
#             and descriptors sampled every 10 s
# Usage: scripts/reliability.sh [fuzz] [valgrind] [soak]   (none: all three)
# Figures go to build/reliability/results.md as Markdown rows, logs beside it.
set -uo pipefail
cd "$(dirname "$0")/.." || exit 2
root=$PWD
jobs="${QUENLIB_JOBS:-2}"
fuzz_seconds="${FUZZ_SECONDS:-1800}"
soak_seconds="${SOAK_SECONDS:-600}"
out="$root/build/reliability"
results="$out/results.md"
plain="${RELIABILITY_BUILD:-$root/build/valgrind}"  # a build without sanitizers
mkdir -p "$out/logs"
status=0

row() { echo "$*" | tee -a "$results"; }
timeserver_pid=
trap '[ -n "$timeserver_pid" ] && kill -9 "$timeserver_pid" 2>/dev/null' EXIT

# A build without sanitizers, with tests, tools and examples, for valgrind
# and for the soaks (sanitizer quarantines would hide the memory figures).
plain_build() {
  [ -f "$plain/.built" ] && return 0
  cmake -S "$root" -B "$plain" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUENLIB_BUILD_TESTS=ON \
    -DQUENLIB_SANITIZE=OFF -DQUENLIB_WERROR=OFF >"$out/logs/plain-configure.log" &&
    cmake --build "$plain" -j"$jobs" >"$out/logs/plain-build.log" && touch "$plain/.built"
}

run_fuzz() {
  row ""
  row "| target | duration | executions | corpus files (before -> after merge) | result |"
  row "|---|---|---|---|---|"
  if ! { cmake --preset fuzz >/dev/null && cmake --build --preset fuzz -j"$jobs" >"$out/logs/fuzz-build.log"; }; then
    row "| (build) | | | | failed, see $out/logs/fuzz-build.log |"
    status=1
    return
  fi
  for src in fuzz/fuzz_*.cpp; do
    local t corpus work before after execs result
    t=$(basename "$src" .cpp)
    corpus="fuzz/corpus/$t"
    work=$(mktemp -d)
    mkdir -p "$corpus" "$work/run" "$work/min" "$out/artifacts"
    cp -r "$corpus/." "$work/run/"
    before=$(find "$corpus" -type f | wc -l)
    if build/fuzz/fuzz/"$t" -max_total_time="$fuzz_seconds" -print_final_stats=1 -timeout=30 \
        -artifact_prefix="$out/artifacts/$t-" "$work/run" >"$out/logs/$t.log" 2>&1; then
      result=clean
    else
      result="FAILED, see $out/logs/$t.log and $out/artifacts/"
      status=1
    fi
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$out/logs/$t.log" | tail -1)
    build/fuzz/fuzz/"$t" -merge=1 "$work/min" "$corpus" "$work/run" >"$out/logs/$t-merge.log" 2>&1 &&
      rm -rf "$corpus" && mv "$work/min" "$corpus"
    after=$(find "$corpus" -type f | wc -l)
    rm -rf "$work"
    row "| $t | ${fuzz_seconds} s | ${execs:-?} | $before -> $after | $result |"
  done
}

run_valgrind() {
  row ""
  row "| test program | under | tests | definitely lost | memcheck errors |"
  row "|---|---|---|---|---|"
  plain_build || { row "| (build) | | failed, see $out/logs/plain-build.log | | |"; status=1; return; }
  local programs=("$plain"/tests/test_*)
  # VALGRIND_TESTS="test_a test_b" runs those programs only, in that order.
  if [ -n "${VALGRIND_TESTS:-}" ]; then
    read -ra programs <<<"$VALGRIND_TESTS"
    programs=("${programs[@]/#/$plain/tests/}")
  fi
  for t in "${programs[@]}"; do
    [ -x "$t" ] || continue
    local name log tests lost errors
    name=$(basename "$t")
    log="$out/logs/valgrind-$name.log"
    if (cd "$plain/tests" && QUENLIB_TEST=1 timeout 5400 valgrind --tool=memcheck --leak-check=full \
        --errors-for-leak-kinds=definite --error-exitcode=99 --log-file="$log.vg" \
        "$t" --gtest_brief=1 >"$log" 2>&1); then tests=passed; else tests="failed (exit $?)"; fi
    lost=$(sed -n 's/.*definitely lost: \([0-9,]*\) bytes.*/\1/p' "$log.vg" | tail -1)
    errors=$(sed -n 's/.*ERROR SUMMARY: \([0-9,]*\) errors.*/\1/p' "$log.vg" | tail -1)
    [ "${lost:-0}" = 0 ] && [ "${errors:-0}" = 0 ] || status=1
    row "| $name | memcheck | $tests | ${lost:-0} bytes | ${errors:-?} |"
  done
}

# The sample server answering `quen net line` as fast as one client asks,
# its memory and descriptors read from /proc every 10 s.
soak_timeserver() {
  local server="$plain/examples/timeserver/quen-timeserver" quen="$plain/tools/quen/quen"
  local pidfile="$out/timeserver.pid" pid start next base_rss=0 base_fds=0 max_rss=0 max_fds=0 asked=0 failed=0
  "$server" -trace w -pidfile "$pidfile" >"$out/logs/timeserver.log" 2>&1 &
  pid=$!
  timeserver_pid=$pid
  for _ in $(seq 100); do "$quen" net line 127.0.0.1:7070 --send utc >/dev/null 2>&1 && break; sleep 0.1; done
  start=$SECONDS
  next=$start
  while [ $((SECONDS - start)) -lt "$soak_seconds" ]; do
    asked=$((asked + 1))
    "$quen" net line 127.0.0.1:7070 --send utc >/dev/null 2>&1 || failed=$((failed + 1))
    [ "$SECONDS" -lt "$next" ] && continue
    next=$((next + 10))
    kill -0 "$pid" 2>/dev/null || { row "| timeserver | ended early | | | | |"; status=1; return; }
    local rss fds elapsed=$((SECONDS - start))
    rss=$(awk '/^VmRSS:/ {print $2}' "/proc/$pid/status")
    fds=$(find "/proc/$pid/fd" -mindepth 1 | wc -l)
    row "| timeserver | ${elapsed} s | $asked | $failed | $rss KiB | $fds |"
    if [ "$base_rss" = 0 ] || { [ "$elapsed" -lt 60 ] && [ "$soak_seconds" -ge 120 ]; }; then
      base_rss=$rss base_fds=$fds max_rss=$rss max_fds=$fds
    else
      [ "$rss" -gt "$max_rss" ] && max_rss=$rss
      [ "$fds" -gt "$max_fds" ] && max_fds=$fds
    fi
  done
  local verdict=flat
  if [ "$failed" -ne 0 ] || [ $((max_rss * 100)) -gt $((base_rss * 105)) ] || [ "$max_fds" -gt "$base_fds" ]; then
    verdict=GREW
    status=1
  fi
  kill -TERM "$pid" && wait "$pid"
  timeserver_pid=
  row "| timeserver | total ${soak_seconds} s | $asked requests | $failed failed | RSS $base_rss -> max $max_rss KiB | fds $base_fds -> max $max_fds, $verdict |"
}

run_soak() {
  row ""
  row "| soak | elapsed | exchanges | failed | resident | descriptors |"
  row "|---|---|---|---|---|---|"
  plain_build || { row "| (build) | failed, see $out/logs/plain-build.log | | | | |"; status=1; return; }
  soak_timeserver
  (cd "$plain/tests" && QUENLIB_TEST=1 QUENLIB_SOAK_SECONDS="$soak_seconds" ./test_soak \
    --gtest_also_run_disabled_tests --gtest_filter='Soak.*' >"$out/logs/soak-clients.log" 2>&1) || status=1
  grep '^| ' "$out/logs/soak-clients.log" | tee -a "$results"
  grep -E '^\[  (SKIPPED|FAILED) +\] Soak\.[A-Za-z_]+ \(' "$out/logs/soak-clients.log" | sed 's/^/  /' | tee -a "$results"
}

parts=("$@")
[ ${#parts[@]} -eq 0 ] && parts=(fuzz valgrind soak)
echo "# reliability runs $(date -u '+%Y-%m-%d %H:%M UTC')" >>"$results"
for part in "${parts[@]}"; do
  case "$part" in
    fuzz) run_fuzz ;;
    valgrind) run_valgrind ;;
    soak) run_soak ;;
    *) echo "unknown part: $part (fuzz, valgrind, soak)" >&2; exit 2 ;;
  esac
done
exit $status
