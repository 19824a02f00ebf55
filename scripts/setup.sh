#!/usr/bin/env bash
# Installs the Debian packages the build, tests, benchmarks and fuzz targets need, when they are
# missing (clang with its runtime libraries: libFuzzer for scripts/fuzz.sh).
set -euo pipefail
packages=(cmake ninja-build g++ libgtest-dev libgmock-dev googletest libbenchmark-dev libcli11-dev
    nlohmann-json3-dev pkg-config clang libclang-rt-dev)
missing=()
for p in "${packages[@]}"; do
    dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "installing: ${missing[*]}"
    SUDO=""
    [ "$(id -u)" -eq 0 ] || SUDO="sudo"
    $SUDO apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}"
fi
