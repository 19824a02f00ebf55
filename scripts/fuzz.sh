#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz/, clang++ with ASan and UBSan) in build-fuzz/ and runs each
# for a fixed budget, starting from its seed corpus in fuzz/corpus/<target>/. New inputs go to
# a scratch directory, so the committed seeds stay as they are; a crash leaves its input in
# build-fuzz/findings/ and fails the script.
#   bash scripts/fuzz.sh                 every target, FUZZ_SECONDS (default 30) each
#   bash scripts/fuzz.sh RuleTextFuzz    one target
#   FUZZ_SECONDS=600 bash scripts/fuzz.sh
# A finding is fixed, then its input is added to fuzz/corpus/<target>/ and to a unit test.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
seconds="${FUZZ_SECONDS:-30}"
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(RuleTextFuzz ScenarioReaderFuzz RuleTranslationFuzz)
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DOVINMIREL_FUZZ=ON -DOVINMIREL_BENCH=OFF "${launcher[@]}" >/dev/null
cmake --build build-fuzz --target "${targets[@]}" -j "$(nproc)"
mkdir -p build-fuzz/findings
for t in "${targets[@]}"; do
    work="build-fuzz/corpus/$t"
    log="build-fuzz/$t.log"
    mkdir -p "$work"
    rm -f build-fuzz/findings/"$t"-*
    echo "== $t: ${seconds} s"
    # Any sanitizer report stops the run and leaves its input as an artifact.
    if ! ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
        UBSAN_OPTIONS=halt_on_error=1:abort_on_error=1:print_stacktrace=1 \
        "build-fuzz/fuzz/$t" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="build-fuzz/findings/$t-" \
        "$work" "fuzz/corpus/$t" >"$log" 2>&1; then
        tail -n 60 "$log" >&2
        echo "$t failed: its input in build-fuzz/findings/ (log: $log)" >&2
        exit 1
    fi
    grep -E "^stat::(number_of_executed_units|new_units_added)|^INFO: seed corpus" "$log" || true
done
