#!/usr/bin/env bash
# Builds the libFuzzer targets with clang in BUILD_DIR and runs each for SECONDS (default 60).
# Exits non-zero when a target finds a crash, leak, time-out or undefined behaviour; the input
# that did it is kept in BUILD_DIR/fuzz-artifacts/<target>/.
# Usage: fuzz/run.sh BUILD_DIR [SECONDS]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:?usage: fuzz/run.sh BUILD_DIR [SECONDS]}
seconds=${2:-60}

# Everything instrumented for coverage and built with the sanitizers, so undefined behaviour
# ends a run instead of passing unnoticed.
CC=clang CXX=clang++ cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DORV_BUILD_FUZZ=ON -DORV_BUILD_TESTS=OFF -DORV_BUILD_BENCH=OFF -DORV_WITH_LINUX=OFF \
    -DORV_SANITIZE=ON -DCMAKE_C_FLAGS=-fsanitize=fuzzer-no-link \
    -DCMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link >/dev/null

targets=()
for src in "$root"/fuzz/*.cpp; do
    name=$(basename "$src" .cpp)
    targets+=("fuzz_$name")
done
ninja -C "$dir" "${targets[@]}"

status=0
for t in "${targets[@]}"; do
    corpus="$dir/fuzz-corpus/$t"
    artifacts="$dir/fuzz-artifacts/$t"
    mkdir -p "$corpus" "$artifacts"
    seeds="$root/fuzz/corpus/${t#fuzz_}"
    if [ -d "$seeds" ]; then cp -n "$seeds"/* "$corpus"/ 2>/dev/null || true; fi
    echo "== $t for ${seconds}s"
    if ! ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
        UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        "$dir/fuzz/$t" -max_total_time="$seconds" -max_len=70000 -timeout=10 \
        -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$artifacts/" "$corpus"; then
        echo "== $t: finding kept in $artifacts/" >&2
        status=1
    fi
done
exit $status
