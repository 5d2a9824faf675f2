#!/bin/bash
# load: load averages, tasks and pressure stall information.
#
# Usage: load.sh -u URL [--loglevel=LEVEL]
#
# "pressure" is null when the kernel has no /proc/pressure, and a resource is null when its
# file cannot be read (PSI built in but switched off). Status, from averages long enough that
# one busy moment is no alarm:
#   5-minute load per online CPU    warning from 2, critical from 4
#   CPU stalls ("some", avg60)      warning from 50 %, critical from 80 %
#   memory, I/O stalls ("full")     warning from 10 %, critical from 25 %

here=${BASH_SOURCE[0]%/*}
[[ $here == "${BASH_SOURCE[0]}" ]] && here=.
# shellcheck source=plugin-lib.sh
. "$here/plugin-lib.sh" || exit 1
plugin_init load "$@"

# Thresholds in hundredths: load per CPU, then the avg60 share of each resource's stall line.
LOAD_WARNING=200 LOAD_CRITICAL=400
declare -A STALL_KIND=([cpu]=some [memory]=full [io]=full)
declare -A STALL_WARNING=([cpu]=5000 [memory]=1000 [io]=1000)
declare -A STALL_CRITICAL=([cpu]=8000 [memory]=2500 [io]=2500)

# rate WHAT VALUE WARNING CRITICAL [UNIT]: flag VALUE (hundredths) against the thresholds.
rate() {
    local text
    printf -v text '%s %d.%02d%s' "$1" $(($2 / 100)) $(($2 % 100)) "${5-}"
    if (($2 >= $4)); then
        flag critical "$text"
    elif (($2 >= $3)); then
        flag warning "$text"
    fi
}

read -r load1 load5 load15 tasks _ </proc/loadavg
declare -i cpus=0
while read -r key _; do
    [[ $key == cpu[0-9]* ]] && cpus+=1
done </proc/stat

report=
add_number report load1 "$load1"
add_number report load5 "$load5"
add_number report load15 "$load15"
add_number report tasks_runnable "${tasks%/*}"
add_number report tasks_total "${tasks#*/}"
add_number report cpus "$cpus"
if ((cpus > 0)); then
    hundredths "$load5"
    per_cpu=$((REPLY / cpus))
    printf -v REPLY '%d.%02d' $((per_cpu / 100)) $((per_cpu % 100))
    add_json report load5_per_cpu "$REPLY"
    rate "5-minute load per CPU" "$per_cpu" "$LOAD_WARNING" "$LOAD_CRITICAL"
else
    add_json report load5_per_cpu null
fi

# stalls RESOURCE: REPLY = the resource's stall lines as {"some":{...},"full":{...}}, null
# when there are none; rates the line that counts for the status.
stalls() {
    local kind avg10 avg60 avg300 total lines=''
    while read -r kind avg10 avg60 avg300 total; do
        [[ $kind == some || $kind == full ]] || continue
        local line=''
        add_number line avg10 "${avg10#avg10=}"
        add_number line avg60 "${avg60#avg60=}"
        add_number line avg300 "${avg300#avg300=}"
        add_number line total_us "${total#total=}"
        lines+="${lines:+,}\"$kind\":{$line}"
        if [[ $kind == "${STALL_KIND[$1]}" ]]; then
            hundredths "${avg60#avg60=}"
            rate "$1 stalls ($kind, avg60)" "$REPLY" "${STALL_WARNING[$1]}" "${STALL_CRITICAL[$1]}" " %"
        fi
    done 2>/dev/null <"/proc/pressure/$1"
    if [[ -n $lines ]]; then REPLY="{$lines}"; else REPLY=null; fi
}

if [[ -d /proc/pressure ]]; then
    pressure=''
    for resource in cpu memory io; do
        stalls "$resource"
        add_json pressure "$resource" "$REPLY"
    done
    add_json report pressure "{$pressure}"
else
    log info "no pressure stall information in this kernel"
    add_json report pressure null
fi

send_report "$report"
