#!/usr/bin/env bash
# Sets up what is missing, configures, builds and runs every test.
#   scripts/test.sh              normal build in build/
#   scripts/test.sh --sanitize   AddressSanitizer + UndefinedBehaviorSanitizer build in build-asan/
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
build=build
flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
if [ "${1:-}" = "--sanitize" ]; then
    build=build-asan
    flags=(-DCMAKE_BUILD_TYPE=Debug -DOVINMIREL_SANITIZE=ON -DOVINMIREL_BENCH=OFF)
fi
[ -n "${CI:-}" ] && flags+=(-DOVINMIREL_WERROR=ON)
cmake -S . -B "$build" -G Ninja "${flags[@]}" >/dev/null
cmake --build "$build" -j "$(nproc)"
cd "$build"
ctest --output-on-failure -j "$(nproc)"
