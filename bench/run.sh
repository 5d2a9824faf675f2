#!/usr/bin/env bash
# Loopback load on a release build: 64 connections, 1 KiB reports, one name and 64 names.
set -euo pipefail
cd "$(dirname "$0")/.."
command -v wrk >/dev/null || { apt-get update -qq && apt-get install -y -qq wrk; }
BUILD_DIR=build-release BUILD_TYPE=Release scripts/build.sh -DBUILD_TESTING=OFF
root=$(mktemp -d)
trap 'kill $pid 2>/dev/null; wait $pid 2>/dev/null; rm -rf "$root"' EXIT
port=${PORT:-19996}
mkdir -p "$root/etc/tolmar/cpservices/tessard" "$root/reports" \
  "$root/usr/lib/tolmar/tessard/plugins/config" "$root/usr/lib/tolmar/tessard/plugins/bin"
echo "<config><httpPort>$port</httpPort><log><level>warning</level></log></config>" \
  >"$root/etc/tolmar/cpservices/tessard/config.xml"
TESSARD_ROOT=$root build-release/tessard -r "$root/reports" &
pid=$!
sleep 1
echo "machine: nproc $(nproc)"
for names in 1 64; do
  echo "names: $names"
  NAMES=$names wrk -t2 -c64 -d${DURATION:-10s} --latency -s bench/post.lua "http://127.0.0.1:$port/" \
    | grep -E ' 99%|Requests/sec|Non-2xx|errors'
done
