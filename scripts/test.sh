#!/usr/bin/env bash
# Builds everything and runs every test (see build.sh for BUILD_DIR and CMake arguments).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh "$@"
build_dir=${BUILD_DIR:-build}
# CTEST_ARGS is split into words on purpose.
# shellcheck disable=SC2086
ctest --test-dir "$build_dir" --output-on-failure -j2 ${CTEST_ARGS:-}
