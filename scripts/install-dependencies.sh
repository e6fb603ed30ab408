#!/usr/bin/env bash
# Installs with apt-get whatever the build, the tests, the fuzz targets and the Debian
# packages (dpkg-shlibdeps, file) need and the machine does not have yet (Debian 12).
set -euo pipefail

packages=(
  build-essential cmake ninja-build ccache pkg-config clang libclang-rt-14-dev
  libssl-dev libsqlite3-dev nlohmann-json3-dev libcli11-dev
  libgtest-dev libbenchmark-dev libcurl4-openssl-dev libcpp-httplib-dev curl
  libsndfile1-dev libutf8proc-dev plocate dpkg-dev file
)

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
