#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, with ASan and UBSan) and runs each for FUZZ_SECONDS
# (default 60), starting from its inputs in tests/fuzz/corpus/<target>. New inputs go to a
# scratch folder, so the tree stays clean. A crash, leak or undefined behaviour fails the run
# and prints the input: add it to the corpus as a regression input once it is fixed.
set -euo pipefail
cd "$(dirname "$0")/.."
TESSARD_SANITIZERS=1 scripts/deps.sh
BUILD_DIR=build-fuzz BUILD_TYPE=RelWithDebInfo CXX=clang++ scripts/build.sh \
    -DTESSARD_FUZZ=ON -DBUILD_TESTING=OFF
export UBSAN_OPTIONS="halt_on_error=1 print_stacktrace=1 suppressions=$PWD/tests/sanitizers/ubsan.supp"
seconds=${FUZZ_SECONDS:-60}
status=0
for corpus in tests/fuzz/corpus/*/; do
    target=$(basename "$corpus")
    scratch=$(mktemp -d)
    if build-fuzz/tests/fuzz/fuzz_"$target" -max_total_time="$seconds" -print_final_stats=1 \
        -artifact_prefix="$scratch/" "$scratch" "$corpus" >"$scratch/log" 2>&1; then
        echo "fuzz_$target: $(grep -o 'Done [0-9]* runs in [0-9]* second(s)' "$scratch/log")," \
            "corpus $(ls "$scratch" | grep -vc '^log$') new + $(ls "$corpus" | wc -l) in the tree"
    else
        status=1
        echo "fuzz_$target FAILED:"
        grep -v '^#\|^INFO\|^\[' "$scratch/log" | head -n 60
        for input in "$scratch"/crash-* "$scratch"/leak-* "$scratch"/timeout-* "$scratch"/oom-*; do
            [ -e "$input" ] || continue
            echo "input $(basename "$input") (base64; add it to $corpus):"
            base64 "$input"
        done
    fi
    rm -rf "$scratch"
done
exit "$status"
