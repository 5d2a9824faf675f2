#!/usr/bin/env bash
# The demo: builds the daemon alone and runs it under a local root (./run, or $TESSARD_ROOT)
# with the example plugins, their timers sped up by TESSARD_TIME_SCALE (default 30: a fast
# batch every 10 s). The daemon's log goes to <root>/tessard.log; this terminal shows one
# line per report stored in REPORT_DIR (default <root>/reports) and per plugin start and
# outcome, read from the daemon's status file, until Ctrl-C. As root it makes the plugin
# pool cgroup first (and removes it again if it made it); otherwise reports are still
# taken but no plugin is launched.
set -euo pipefail
cd "$(dirname "$0")/.."
TESSARD_DEMO=1 scripts/deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}" >/dev/null
ninja -C build tessard

root=$(realpath -m "${TESSARD_ROOT:-run}")
report_dir=$(realpath -m "${REPORT_DIR:-$root/reports}")
plugins=$root/usr/lib/tolmar/tessard/plugins
config=$root/etc/tolmar/cpservices/tessard/config.xml
log=$root/tessard.log
export TESSARD_ROOT=$root TESSARD_TIME_SCALE=${TESSARD_TIME_SCALE:-30}

mkdir -p "$report_dir" "$plugins" "$(dirname "$config")"
cp -R packaging/plugins/bin packaging/plugins/config "$plugins/"
[ -f "$config" ] || cp packaging/config.xml "$config"
port=$(sed -n 's:.*<httpPort>[[:space:]]*\([0-9]*\)[[:space:]]*</httpPort>.*:\1:p' "$config")

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

# One line per change of the status file: a report stored, a plugin started or ended.
declare -A seen
watch_status() {
    local status kind name stamp text
    status=$(build/tessard status --json 2>/dev/null) || return 0
    while IFS=$'\t' read -r kind name stamp text; do
        [ "${seen[$kind $name]:-}" != "$stamp" ] || continue
        seen[$kind $name]=$stamp
        printf '%s  %-7s %-12s %s\n' "${stamp#*T}" "$kind" "$name" "$text"
    done < <(jq -r '
        (.reports[] | select(.last) | ["report", .name, .last,
            "\(.size) bytes (answers \(.answers | to_entries | map("\(.key):\(.value)") | join(" ")))"]),
        (.plugins[] | select(.lastStart) | ["started", .name, .lastStart,
            "\(.category), every \(.period) s"]),
        (.plugins[] | select(.lastOutcome) | .lastOutcome as $o | ["ended", .name,
            $o.started,
            "\($o.end) \($o.status) after \($o.runTimeMs) ms, peak \($o.peakMemoryKb) KiB"])
        | @tsv' <<<"$status")
}

: >"$log"
build/tessard -r "$report_dir" >>"$log" 2>&1 &
daemon=$!
stop() { kill -TERM "$daemon" 2>/dev/null || true; }
trap stop INT TERM

say "tessard pid $daemon; its log: $log"
say "configuration $config, plugins in $plugins, reports in $report_dir"
say "post one yourself: curl -H 'Content-Type: application/json' --data '{\"ok\":true}' http://localhost:${port:-9996}/mine"
say "see it all: TESSARD_ROOT=$root build/tessard status; Ctrl-C stops"
while kill -0 "$daemon" 2>/dev/null; do
    watch_status
    sleep 1 || true # Ctrl-C interrupts it
done
status=0
wait "$daemon" || status=$?
say "stopped tessard (pid $daemon, exit status $status)"
# Plugins of the last batches may still be finishing.
if [ "$made_pool" = 1 ]; then
    removed=0
    for _ in 1 2 3 4 5; do
        if packaging/tessard-pool.sh remove >/dev/null 2>&1; then removed=1 && break; fi
        sleep 1
    done
    if [ "$removed" = 1 ]; then say "removed the plugin pool cgroup it made"; else say "could not remove the plugin pool cgroup: see packaging/tessard-pool.sh status"; fi
else
    say "left the plugin pool as it was"
fi
say "kept the reports in $report_dir and the log in $log (remove $root to start afresh)"
exit "$status"
