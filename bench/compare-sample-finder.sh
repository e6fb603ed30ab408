#!/usr/bin/env bash
# Runs SampleFinderBench and prints each search of the library beside the tool it stands on:
# the locate query (the name as spelt, then every folded spelling) against plocate alone, the
# folder scan against find alone.
# Usage: bench/compare-sample-finder.sh [BUILD_DIR]
set -euo pipefail

build=${1:-build}
json=$(mktemp)
trap 'rm -f "$json"' EXIT
"$build/bench/SampleFinderBench" --benchmark_format=json --benchmark_out="$json" --benchmark_out_format=json >/dev/null

python3 - "$json" <<'PYTHON'
import json, sys
times = {b["name"]: b["real_time"] for b in json.load(open(sys.argv[1]))["benchmarks"]}
pairs = [
    ("spelt, \"Target Kick.wav\"", "BM_LocateQuery/0/1/real_time", "BM_PlocateAlone/0/real_time"),
    ("spelt, \"Kick 42.wav\"", "BM_LocateQuery/1/1/real_time", "BM_PlocateAlone/1/real_time"),
    ("folded, \"Target Kick.wav\"", "BM_LocateQuery/0/0/real_time", "BM_PlocateAlone/0/real_time"),
    ("folded, \"Kick 42.wav\"", "BM_LocateQuery/1/0/real_time", "BM_PlocateAlone/1/real_time"),
    ("scan, 100,000 files", "BM_ScanQuery/real_time", "BM_FindAlone/real_time"),
]
print(f"{'search':28} {'library ms':>11} {'tool alone ms':>14} {'ratio':>6}")
for label, ours, theirs in pairs:
    if ours in times and theirs in times:
        print(f"{label:28} {times[ours]:11.2f} {times[theirs]:14.2f} {times[ours] / times[theirs]:6.2f}")
PYTHON
