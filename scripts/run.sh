#!/usr/bin/env bash
# Builds tessard and runs it in the foreground under a local root (./run, or $TESSARD_ROOT):
# its configuration file and plugin folders live there, and reports POSTed to
# http://localhost:9996/<name> land in REPORT_DIR (default: ./run/reports). Ctrl-C stops it.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh
root=${TESSARD_ROOT:-$PWD/run}
report_dir=${REPORT_DIR:-$root/reports}
plugins=$root/usr/lib/tolmar/tessard/plugins
config=$root/etc/tolmar/cpservices/tessard/config.xml
mkdir -p "$report_dir" "$plugins/config" "$plugins/bin" "$(dirname "$config")"
[ -f "$config" ] || echo '<config><httpPort>9996</httpPort></config>' >"$config"
echo "tessard: configuration $config, reports in $report_dir; try:"
echo "  curl -H 'Content-Type: application/json' --data '{\"ok\":true}' http://localhost:9996/cpu"
TESSARD_ROOT=$root exec build/tessard -r "$report_dir"
