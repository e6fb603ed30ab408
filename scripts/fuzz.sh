#!/usr/bin/env bash
# Runs every fuzz target built in BUILD_DIR for SECONDS each, starting from its seed corpus;
# fails on the first crash, sanitizer report or leak.
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${1:-build-fuzz}
seconds=${2:-60}
status=0
for target in "$build_dir"/fuzz/*Fuzz; do
  [ -x "$target" ] || continue
  name=$(basename "$target" Fuzz)
  work=$(mktemp -d)
  # The library's error lines would fill the fuzz log and its log file: keep both out of the way.
  logs=$(mktemp -d)
  cp -r "fuzz/corpus/$name/." "$work/" 2>/dev/null || true
  echo "fuzzing $name for ${seconds}s"
  if ! TMPDIR="$logs" "$target" -close_fd_mask=2 -max_total_time="$seconds" -max_len=65536 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$build_dir/$name-" "$work" >"$build_dir/$name.log" 2>&1; then
    tail -n 60 "$build_dir/$name.log"
    status=1
  fi
  grep -E '^stat::number_of_executed_units' "$build_dir/$name.log" || true
  rm -rf "$work" "$logs"
done
exit $status
