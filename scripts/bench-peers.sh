#!/bin/bash
# Runs the peer-library benchmarks (Qt 6, POCO) of a release build and
# prints the Peers table of docs/performance.md: medians of 3 repetitions,
# ratio = peer time / ours.
#   bash scripts/bench-peers.sh [build-dir]      (default build/release)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build/release}
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
cmake --build "$build" -j2 --target bench_peer_qt bench_peer_poco >&2
for peer in qt poco; do
  "$build/bench/bench_peer_$peer" --benchmark_repetitions=3 --benchmark_report_aggregates_only=true \
    --benchmark_min_time=0.3 --benchmark_format=json > "$out/$peer.json"
done
python3 "$root/bench/peer_ratios.py" "$out/qt.json" "$out/poco.json"
