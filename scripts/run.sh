#!/usr/bin/env bash
# Builds tessard and runs it in the foreground: reports POSTed to
# http://localhost:9996/<name> land in REPORT_DIR (default: ./reports). Ctrl-C stops it.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh
report_dir=${REPORT_DIR:-$PWD/reports}
mkdir -p "$report_dir"
echo "tessard: reports go to $report_dir; try:"
echo "  curl -H 'Content-Type: application/json' --data '{\"ok\":true}' http://localhost:9996/cpu"
exec build/tessard -r "$report_dir"
