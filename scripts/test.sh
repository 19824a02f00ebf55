#!/usr/bin/env bash
# Sets up what is missing, configures, builds and runs every test.
#   scripts/test.sh              normal build in build/
#   scripts/test.sh --sanitize   AddressSanitizer + UndefinedBehaviorSanitizer build in build-asan/,
#                                with LeakSanitizer on and any UBSan report fatal
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
build=build
flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
sanitize=
if [ "${1:-}" = "--sanitize" ]; then
    sanitize=1
    build=build-asan
    flags=(-DCMAKE_BUILD_TYPE=Debug -DOVINMIREL_SANITIZE=ON -DOVINMIREL_BENCH=OFF)
fi
[ -n "${CI:-}" ] && flags+=(-DOVINMIREL_WERROR=ON)
cmake -S . -B "$build" -G Ninja "${flags[@]}" >/dev/null
cmake --build "$build" -j "$(nproc)"
if [ -n "$sanitize" ]; then
    export ASAN_OPTIONS=detect_leaks=1
    export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
    # LeakSanitizer silently does nothing where it cannot run (under ptrace, some containers):
    # prove that it reports a leak here before trusting a clean run.
    probe="$build/leak-probe"
    printf '#include <cstdlib>\nvoid* p;\nint main() { p = std::malloc(64); p = nullptr; return 0; }\n' |
        "$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "$build/CMakeCache.txt")" -x c++ - \
            -fsanitize=address -o "$probe"
    if "$probe" 2>"$probe.out" || ! grep -q "LeakSanitizer: detected memory leaks" "$probe.out"; then
        echo "LeakSanitizer is not active: a planted leak went unreported" >&2
        exit 1
    fi
    echo "LeakSanitizer active (a planted leak was reported)"
fi
cd "$build"
ctest --output-on-failure -j "$(nproc)"
