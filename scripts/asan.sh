#!/usr/bin/env bash
# Builds with AddressSanitizer, LeakSanitizer and UndefinedBehaviorSanitizer (clang) and runs
# the unit tests; any report fails them.
set -euo pipefail
cd "$(dirname "$0")/.."
TESSARD_SANITIZERS=1 scripts/deps.sh
BUILD_DIR=build-asan BUILD_TYPE=RelWithDebInfo CXX=clang++ scripts/build.sh \
    -DTESSARD_SANITIZE=address,undefined
export ASAN_OPTIONS="detect_leaks=1 abort_on_error=1 strict_string_checks=1"
export UBSAN_OPTIONS="halt_on_error=1 print_stacktrace=1 suppressions=$PWD/tests/sanitizers/ubsan.supp"
cd build-asan
ctest --output-on-failure -j2 --timeout 600 -L unit
