#!/bin/bash
# reportdir: health of the daemon's own report directory.
#
# Usage: reportdir.sh -u URL [--loglevel=LEVEL] [--report-dir=DIR]
#
# Launched by the daemon, the plugin reads the directory from its parent's command line (the
# argument of -r). --report-dir=DIR names it for a run by hand and takes precedence. Without
# either the status is "unknown", with the reason, and the report is still sent.
#
# Nothing is written into the directory. Status:
#   critical  missing, not a directory, not writable; file system 95 % full (space or inodes)
#   warning   file system 90 % full; links to a missing report; hidden temporary files older
#             than 10 minutes (left by a crash); newest report of another name than this
#             plugin's older than 30 minutes (the fast plugins alone report every few minutes)

here=${BASH_SOURCE[0]%/*}
[[ $here == "${BASH_SOURCE[0]}" ]] && here=.
# shellcheck source=plugin-lib.sh
. "$here/plugin-lib.sh" || exit 1

report_dir=''
plugin_option() {
    [[ $1 == --report-dir=* ]] || return 1
    report_dir=${1#*=}
}
plugin_init reportdir "$@"

WARNING_PERCENT=90
CRITICAL_PERCENT=95
STALE_TEMPORARY_S=600
OLD_REPORT_S=1800
MAX_LISTED=20

# The -r argument of the parent, when the parent is the daemon; getopt lets it be joined
# ("-rDIR") and stops at "--". A relative directory is the daemon's, not ours.
daemon_report_dir() {
    local comm dir=''
    local -i i
    local -a args
    read -r comm 2>/dev/null </proc/$PPID/comm || return 1
    [[ $comm == tessard ]] || return 1
    mapfile -d '' args 2>/dev/null </proc/$PPID/cmdline || return 1
    for ((i = 1; i < ${#args[@]}; i++)); do
        case ${args[i]} in
        --) break ;;
        -r) dir=${args[i + 1]-} && i+=1 ;;
        -r?*) dir=${args[i]#-r} ;;
        esac
    done
    [[ -n $dir ]] || return 1
    [[ $dir == /* ]] || dir=$(readlink -- "/proc/$PPID/cwd")/$dir
    REPLY=$dir
}

# list VAR COUNT NAME: append NAME to the JSON array members in VAR while COUNT allows.
list() {
    local -n names_=$1
    if (($2 <= MAX_LISTED)); then
        json_quote "$3"
        names_+=${names_:+,}$REPLY
    fi
}

report='' daemon=''
if daemon_report_dir; then
    daemon=1
    [[ -z $report_dir ]] && report_dir=$REPLY
fi
if [[ -z $report_dir ]]; then
    STATUS=unknown
    reason="no --report-dir and the parent process is not tessard"
    log warning "$reason"
    add_string report reason "$reason"
    add_json report report_dir null
    send_report "$report"
    exit 0
fi
[[ $report_dir == */ && $report_dir != / ]] && report_dir=${report_dir%/}
add_string report report_dir "$report_dir"

if [[ ! -e $report_dir ]]; then
    flag critical "$report_dir does not exist"
elif [[ ! -d $report_dir ]]; then
    flag critical "$report_dir is not a directory"
fi
if [[ -e $report_dir ]]; then add_json report exists true; else add_json report exists false; fi
if [[ -d $report_dir ]]; then is_directory=true; else is_directory=false; fi
add_json report is_directory $is_directory
# Whether the daemon can write there: this plugin may run as another user than the daemon.
# Root writes any directory on a file system mounted read-write.
daemon_can_write() {
    local uid=''
    [[ -n $daemon ]] && uid=$(awk '/^Uid:/ {print $3}' "/proc/$PPID/status" 2>/dev/null)
    if [[ -z $uid || $uid == "$EUID" ]]; then
        [[ -w $1 && -x $1 ]]
    elif ((uid == 0)); then
        [[ ,$(findmnt -n -o OPTIONS --target "$1" 2>/dev/null), != *,ro,* ]]
    else
        [[ $(stat -c '%u %A' "$1") == "$uid "d?wx* ]]
    fi
}
if [[ -d $report_dir ]] && daemon_can_write "$report_dir"; then
    add_json report writable true
else
    add_json report writable false
    [[ -d $report_dir ]] && flag critical "$report_dir is not writable"
fi

if [[ $is_directory == true ]]; then
    # Block size, blocks, blocks free to users, inodes, free inodes, as in disk.sh.
    if answer=$(timeout -k 1 2 stat -f -c '%S %b %f %a %c %d' -- "$report_dir" 2>&1); then
        read -r block_size blocks free available inodes free_inodes <<<"$answer"
        used=$(((blocks - free) * block_size / 1024))
        available=$((available * block_size / 1024))
        fs=''
        add_number fs available_kib "$available"
        percent "$used" $((used + available))
        add_json fs used_percent "$REPLY"
        rate_percent "file system of the report directory: space" $WARNING_PERCENT $CRITICAL_PERCENT
        add_number fs inodes_free "$free_inodes"
        percent $((inodes - free_inodes)) "$inodes"
        add_json fs inodes_used_percent "$REPLY"
        rate_percent "file system of the report directory: inodes" $WARNING_PERCENT $CRITICAL_PERCENT
        add_json report file_system "{$fs}"
    else
        flag warning "file system of $report_dir: ${answer//$'\n'/ }"
        add_json report file_system null
    fi

    shopt -s nullglob
    declare -i names=0 dangling=0 stale=0
    dangling_names='' stale_names='' newest=''
    for link in "$report_dir"/*.json; do
        [[ -L $link ]] || continue
        names+=1
        if [[ ! -e $link ]]; then
            dangling+=1
            list dangling_names $dangling "${link##*/}"
        fi
    done
    # Report files and the daemon's hidden temporaries (report files and links being put in
    # place); each may vanish between the listing and stat, so names travel with the times.
    # Our own reports would keep the newest young even when nobody else gets through.
    now=$EPOCHSECONDS
    while IFS=' ' read -r -d '' mtime path; do
        name=${path##*/}
        if [[ $name == .* ]]; then
            if ((now - mtime > STALE_TEMPORARY_S)); then
                stale+=1
                list stale_names $stale "$name"
            fi
        elif [[ $name != "$PLUGIN_NAME"-?.json && ! -L $path ]] && ((mtime > ${newest:-0})); then
            newest=$mtime
        fi
    done < <(stat --printf='%Y %n\0' -- "$report_dir"/*-[0-9].json "$report_dir"/.*-[0-9].json \
        "$report_dir"/.*.json.lnk 2>/dev/null)

    add_number report report_names "$names"
    add_number report dangling_links "$dangling"
    add_json report dangling_link_names "[$dangling_names]"
    ((dangling > 0)) && flag warning "$dangling link(s) to a missing report"
    add_number report stale_temporary_files "$stale"
    add_json report stale_temporary_file_names "[$stale_names]"
    ((stale > 0)) && flag warning "$stale temporary file(s) older than $((STALE_TEMPORARY_S / 60)) minutes"
    age=''
    if [[ -n $newest ]]; then
        age=$((now > newest ? now - newest : 0))
        ((age > OLD_REPORT_S)) && flag warning "newest report is $((age / 60)) minutes old"
    fi
    add_number report newest_report_age_s "$age"
fi

send_report "$report"
