#!/usr/bin/env python3
"""Turns the JSON output of bench_peer_qt / bench_peer_poco into the Peers
table of docs/performance.md: each Ours_<row> is paired with <Peer>_<row>.

  bench_peer_qt --benchmark_repetitions=3 --benchmark_report_aggregates_only=true \
      --benchmark_format=json > qt.json
  python3 bench/peer_ratios.py qt.json poco.json
"""
import json
import sys

ROWS = {
    "Copy/1024": "copy a 1 KiB string",
    "Copy/65536": "copy a 64 KiB string",
    "CopyModify/1024": "copy 1 KiB, then change one character",
    "CopyModify/65536": "copy 64 KiB, then change one character",
    "Append1M": "append one character 1,000,000 times, narrow",
    "Append1MWide": "append one character 1,000,000 times, UTF-16",
    "FindAnsi": "find near the end of 1 MiB, `SAnsiString`",
    "FindAscii": "find near the end of 1 MiB, `SAsciiString`",
    "FindWide": "find near the end of 1 MiB, `SWCharString`",
    "UrlEncode": "percent-encode 1 MiB of mixed text",
    "UrlDecode": "percent-decode the same text",
    "Utf8To16/0": "UTF-8 to UTF-16, 1 MiB ASCII",
    "Utf8To16/1": "UTF-8 to UTF-16, 1 MiB mixed",
    "Utf8To16/2": "UTF-8 to UTF-16, 1 MiB CJK",
    "Utf16To8/0": "UTF-16 to UTF-8, 1 MiB ASCII",
    "Utf16To8/1": "UTF-16 to UTF-8, 1 MiB mixed",
    "Utf16To8/2": "UTF-16 to UTF-8, 1 MiB CJK",
    "DateFormat": "date-time by pattern, New York",
    "IntToText": "64-bit integer to text",
    "TextToInt": "text to 64-bit integer",
    "ConfigRead": "cached configuration read (`ConfigFileReader`)",
    "RegistryRead": "cached registry read (`Registry::ReadValue`)",
    "CompareNoCase": "case-insensitive compare, 64 ASCII bytes, narrow",
    "CompareNoCaseWide": "case-insensitive compare, 64 ASCII units, UTF-16",
    "TraceFile": "trace line to a rotating file",
}
# A plain copy of a shared buffer is one atomic increment on both sides.
GOAL = {"Copy/1024": 0.95, "Copy/65536": 0.95}


def medians(path):
    with open(path) as f:
        data = json.load(f)
    out = {}
    for b in data["benchmarks"]:
        if b.get("aggregate_name", "median") != "median" or b.get("error_occurred"):
            continue
        name = b["run_name"] if "run_name" in b else b["name"]
        out[name] = b["cpu_time"] * {"ns": 1, "us": 1e3, "ms": 1e6}[b["time_unit"]]
    return out


def fmt(ns):
    return f"{ns / 1e6:.2f} ms" if ns >= 1e6 else f"{ns / 1e3:.1f} us" if ns >= 1e4 else f"{ns:.1f} ns"


def main(paths):
    print("| row | peer | ours | peer time | ratio | goal | met? |")
    print("|---|---|---|---|---|---|---|")
    for path in paths:
        times = medians(path)
        for name, ours in times.items():
            if not name.startswith("Ours_"):
                continue
            row = name[len("Ours_"):]
            peer = next((n for n in times if not n.startswith("Ours_") and n.split("_", 1)[1] == row), None)
            if peer is None:
                continue
            ratio = times[peer] / ours
            goal = GOAL.get(row, 1.0)
            met = "yes" if ratio >= goal else "**no**"
            print(f"| {ROWS.get(row, row)} | {peer.split('_')[0]} | {fmt(ours)} | {fmt(times[peer])} | "
                  f"{ratio:.2f}x | >= {goal}x | {met} |")


if __name__ == "__main__":
    main(sys.argv[1:])
