#!/usr/bin/env bash
# Builds the library, kestly, the tests and the benchmarks into build/ (or $BUILD_DIR), with
# any extra CMake arguments passed through.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-dependencies.sh
build_dir=${BUILD_DIR:-build}
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}" "$@" >/dev/null
ninja -C "$build_dir"
