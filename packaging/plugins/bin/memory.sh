#!/bin/bash
# memory: physical memory and swap, from /proc/meminfo.
#
# Usage: memory.sh -u URL [--loglevel=LEVEL]
#
# "Used" is what the kernel cannot hand out without swapping: total minus MemAvailable (on
# kernels without that field, minus free, buffers and page cache). Status: warning from 90 %
# used, critical from 95 %; warning from 80 % of the swap used.

here=${BASH_SOURCE[0]%/*}
[[ $here == "${BASH_SOURCE[0]}" ]] && here=.
# shellcheck source=plugin-lib.sh
. "$here/plugin-lib.sh" || exit 1
plugin_init memory "$@"

WARNING_PERCENT=90
CRITICAL_PERCENT=95
SWAP_WARNING_PERCENT=80

total='' free='' available='' buffers=0 cached=0 swap_total='' swap_free=''
while read -r key value _; do
    case $key in
    MemTotal:) total=$value ;;
    MemFree:) free=$value ;;
    MemAvailable:) available=$value ;;
    Buffers:) buffers=$value ;;
    Cached:) cached=$value ;;
    SwapTotal:) swap_total=$value ;;
    SwapFree:) swap_free=$value ;;
    esac
done </proc/meminfo
[[ -z $available && -n $free ]] && available=$((free + buffers + cached))

# used PREFIX TOTAL LEFT: the PREFIXused_kib and PREFIXused_percent members, used being TOTAL
# minus LEFT; the share stays in REPLY for rate_percent.
used() {
    local kib=''
    [[ -n $2 && -n $3 ]] && kib=$(($2 - $3))
    add_number report "${1}used_kib" "$kib"
    percent "$kib" "$2"
    add_json report "${1}used_percent" "$REPLY"
}

report=
add_number report total_kib "$total"
add_number report available_kib "$available"
add_number report free_kib "$free"
used "" "$total" "$available"
rate_percent memory $WARNING_PERCENT $CRITICAL_PERCENT

add_number report swap_total_kib "$swap_total"
add_number report swap_free_kib "$swap_free"
used swap_ "$swap_total" "$swap_free"
rate_percent swap $SWAP_WARNING_PERCENT

add_json report thresholds "{\"warning_percent\":$WARNING_PERCENT,\"critical_percent\":$CRITICAL_PERCENT,\"swap_warning_percent\":$SWAP_WARNING_PERCENT}"
send_report "$report"
