#!/usr/bin/env bash
# Installs everything the build, the tests, the fuzzers and the benchmarks need
# from Debian's packages. Does nothing when all of it is already present.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  clang libclang-rt-14-dev
  libpcap-dev libpugixml-dev libsqlite3-dev libgtest-dev libgmock-dev libcli11-dev nlohmann-json3-dev
  libgmime-3.0-dev libmagic-dev libssl-dev
  libbenchmark-dev
  help2man file dpkg-dev parallel sqlite3
  chromium
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ "${#missing[@]}" -eq 0 ]; then
  exit 0
fi

echo "install-deps: installing ${missing[*]}" >&2
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
