#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh
cd build
ctest --output-on-failure -j2 --timeout 300
