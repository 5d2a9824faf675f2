#!/usr/bin/env bash
# The demo: builds tessard and runs it under a local root (./run, or $TESSARD_ROOT) with the
# example plugins, their timers sped up by TESSARD_TIME_SCALE (default 30: a fast batch every
# 10 s), and prints every report that lands in REPORT_DIR (default: <root>/reports) until
# Ctrl-C. As root it makes the plugin pool cgroup first (and removes it again if it made it);
# otherwise reports are still taken but no plugin is launched.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh

root=$(realpath -m "${TESSARD_ROOT:-run}")
report_dir=$(realpath -m "${REPORT_DIR:-$root/reports}")
plugins=$root/usr/lib/tolmar/tessard/plugins
config=$root/etc/tolmar/cpservices/tessard/config.xml
export TESSARD_ROOT=$root TESSARD_TIME_SCALE=${TESSARD_TIME_SCALE:-30}

mkdir -p "$report_dir" "$plugins" "$(dirname "$config")"
cp -R packaging/plugins/bin packaging/plugins/config "$plugins/"
[ -f "$config" ] || cp packaging/config.xml "$config"

say() { echo "demo: $*" >&2; }

made_pool=0
if [ "$(id -u)" -ne 0 ]; then
    say "not root, so the plugin pool cgroup cannot be made: reports are taken, plugins are not launched"
elif packaging/tessard-pool.sh status >/dev/null 2>&1; then
    say "using the existing plugin pool"
elif reason=$(packaging/tessard-pool.sh create 2>&1); then
    made_pool=1
    say "$reason"
else
    say "no plugin pool (${reason#tessard-pool: }): reports are taken, plugins are not launched"
fi

# One line per report that arrives; what earlier runs left is noted quietly first.
declare -A seen
watch_reports() {
    local link target stamp
    for link in "$report_dir"/*.json; do
        [ -L "$link" ] || continue
        target=$(readlink "$link") || continue
        stamp=$(stat -L -c '%Y %s' "$link" 2>/dev/null) || continue
        if [ "${seen[$link]:-}" != "$target $stamp" ]; then
            seen[$link]="$target $stamp"
            [ "${1:-}" = quiet ] || say "report ${link##*/} -> $target (${stamp#* } bytes)"
        fi
    done
}
watch_reports quiet

build/tessard -r "$report_dir" &
daemon=$!
# Ctrl-C reaches the daemon too; either way the loop below ends once it has stopped.
trap 'kill -TERM "$daemon" 2>/dev/null || true' INT TERM

say "configuration $config, plugins in $plugins, reports in $report_dir"
say "post one yourself: curl -H 'Content-Type: application/json' --data '{\"ok\":true}' http://localhost:9996/mine"
while kill -0 "$daemon" 2>/dev/null; do
    watch_reports
    sleep 1 || true  # Ctrl-C interrupts it
done
status=0
wait "$daemon" || status=$?
# Plugins of the last batches may still be finishing.
if [ "$made_pool" = 1 ]; then
    for _ in 1 2 3 4 5; do
        packaging/tessard-pool.sh remove >/dev/null 2>&1 && break
        sleep 1
    done
fi
exit "$status"
