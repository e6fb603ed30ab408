#!/usr/bin/env bash
# Makes the Debian packages libcorekestly0, libcorekestly-dev and kestly: configures the build
# in build/ (or $BUILD_DIR) for the prefix /usr, builds it as build.sh does, with any extra
# CMake arguments, and runs cpack. The packages go to the folder given first, by default
# packages/ inside the build folder.
#   scripts/package.sh [OUTPUT_DIR] [CMAKE_ARGUMENTS...]
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${BUILD_DIR:-build}
output_dir=$build_dir/packages
if [ $# -gt 0 ] && [ "${1#-}" = "$1" ]; then
  output_dir=$1
  shift
fi

# Changing the prefix of an existing build rebuilds nothing: only the install rules and the
# generated package files follow it.
BUILD_DIR=$build_dir scripts/build.sh -DCMAKE_INSTALL_PREFIX=/usr "$@"
if [ ! -f "$build_dir/CPackConfig.cmake" ]; then
  echo "$build_dir builds the static library, which makes no packages: add -DBUILD_SHARED_LIBS=ON" >&2
  exit 1
fi
mkdir -p "$output_dir"
output_dir=$(cd "$output_dir" && pwd)
(cd "$build_dir" && cpack -G DEB -B "$output_dir" >/dev/null)
# cpack keeps its staging folders beside the packages.
rm -rf "$output_dir/_CPack_Packages"
ls "$output_dir"/*.deb
