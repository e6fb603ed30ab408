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
if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null; then
    cat >&2 <<MESSAGE
These packages are missing: ${missing[*]}
Installing them needs root, and sudo is not installed. Run this script again as root, or
install sudo (as root: apt-get install sudo && adduser $(id -un) sudo, then log in again),
or install the packages yourself as root:
  apt-get update && apt-get install -y --no-install-recommends ${missing[*]}
MESSAGE
    exit 1
  fi
  sudo="sudo"
fi
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
# sudo resets the environment: the variable is passed through env to reach apt-get.
$sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
