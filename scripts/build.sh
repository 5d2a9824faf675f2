#!/usr/bin/env bash
# Configures and builds into a build directory (default: build). Extra arguments go to cmake.
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${BUILD_DIR:-build}
"$(dirname "$0")/deps.sh"
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}" "$@" >/dev/null
# JOBS caps the parallel compilers on shared machines (default: ninja chooses).
ninja -C "$build_dir" ${JOBS:+-j "$JOBS"}
