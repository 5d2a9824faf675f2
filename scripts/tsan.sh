#!/usr/bin/env bash
# Builds with ThreadSanitizer (clang) and runs the unit tests, the many- and slow-client
# tests and the reload-under-load test against the instrumented daemon.
set -euo pipefail
cd "$(dirname "$0")/.."
TESSARD_SANITIZERS=1 scripts/deps.sh
BUILD_DIR=build-tsan BUILD_TYPE=RelWithDebInfo CXX=clang++ scripts/build.sh -DTESSARD_SANITIZE=thread
export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1"
cd build-tsan
ctest --output-on-failure -j2 --timeout 600 -L unit
ctest --output-on-failure --timeout 600 -R 'ManyClients|Serving|HupReloads'
