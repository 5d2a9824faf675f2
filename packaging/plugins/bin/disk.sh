#!/bin/bash
# disk: space and inode use of the mounted file systems.
#
# Usage: disk.sh -u URL [--loglevel=LEVEL]
#
# Kernel, in-memory and pseudo file systems are left out, and so are read-only images
# (squashfs, ISO 9660, ...), which are full by design. A mount point mounted over twice is
# reported once, for the mount that is visible. Status: warning from 90 % of the space or of
# the inodes used, critical from 95 %; read-only file systems are reported but cannot raise it.
# A mount point that does not answer within 2 s (a hung network file system) is a warning.

here=${BASH_SOURCE[0]%/*}
[[ $here == "${BASH_SOURCE[0]}" ]] && here=.
# shellcheck source=plugin-lib.sh
. "$here/plugin-lib.sh" || exit 1
plugin_init disk "$@"

WARNING_PERCENT=90
CRITICAL_PERCENT=95
STAT_TIMEOUT=2
SKIPPED=" autofs binfmt_misc bpf cgroup cgroup2 configfs cramfs debugfs devpts devtmpfs efivarfs
 erofs fuse.gvfsd-fuse fuse.lxcfs fuse.portal fusectl hugetlbfs iso9660 mqueue nfsd nsfs proc
 pstore ramfs rpc_pipefs securityfs selinuxfs squashfs sysfs tmpfs tracefs udf "

declare -A index_of
points=() devices=() types=() readonly_flags=()
# mountinfo, not mounts: read-only is taken from the file system itself (after " - "), since
# a service sandbox remounts the whole tree read-only for this process alone.
while read -r -a field; do
    for ((s = 6; s < ${#field[@]}; s++)); do [[ ${field[s]} == - ]] && break; done
    mount_point=${field[4]} type=${field[s + 1]-} device=${field[s + 2]-} options=${field[s + 3]-}
    [[ $SKIPPED == *[[:space:]]"$type"[[:space:]]* ]] && continue
    # The kernel writes blanks, tabs, newlines and backslashes in octal (\040 ...).
    printf -v mount_point '%b' "$mount_point"
    printf -v device '%b' "$device"
    i=${index_of[$mount_point]-${#points[@]}}
    index_of[$mount_point]=$i
    points[i]=$mount_point devices[i]=$device types[i]=$type
    [[ ,$options, == *,ro,* ]] && readonly_flags[i]=1 || readonly_flags[i]=0
done </proc/self/mountinfo

mounts=
for i in "${!points[@]}"; do
    mount_point=${points[i]} readonly=${readonly_flags[i]}
    # Fundamental block size, blocks, free blocks, blocks free to users, inodes, free inodes.
    answer=$(timeout -k 1 "$STAT_TIMEOUT" stat -f -c '%S %b %f %a %c %d' -- "$mount_point" 2>&1)
    case $? in
    0) ;;
    124 | 137)
        flag warning "$mount_point: no answer within $STAT_TIMEOUT s"
        continue
        ;;
    *)
        log info "skipping $mount_point: $answer"
        continue
        ;;
    esac
    read -r block_size blocks free available inodes free_inodes <<<"$answer"
    # Blocks nobody may use are neither used nor available (the root reserve): df's way.
    size=$((blocks * block_size / 1024))
    used=$(((blocks - free) * block_size / 1024))
    available=$((available * block_size / 1024))
    [[ $size == 0 ]] && continue

    m=
    add_string m mount_point "$mount_point"
    add_string m device "${devices[i]}"
    add_string m fstype "${types[i]}"
    if ((readonly)); then add_json m readonly true; else add_json m readonly false; fi
    add_number m size_kib "$size"
    add_number m used_kib "$used"
    add_number m available_kib "$available"
    percent "$used" $((used + available))
    add_json m used_percent "$REPLY"
    ((readonly)) || rate_percent "$mount_point: space" $WARNING_PERCENT $CRITICAL_PERCENT
    # Some file systems (btrfs, vfat) have no fixed inode table and report 0 inodes.
    if ((inodes > 0)); then
        inodes_used=$((inodes - free_inodes))
        percent "$inodes_used" "$inodes"
        ((readonly)) || rate_percent "$mount_point: inodes" $WARNING_PERCENT $CRITICAL_PERCENT
    else
        inodes='' inodes_used='' free_inodes='' REPLY=null
    fi
    add_json m inodes_used_percent "$REPLY"
    add_number m inodes_total "$inodes"
    add_number m inodes_used "$inodes_used"
    add_number m inodes_free "$free_inodes"
    mounts+="${mounts:+,}{$m}"
done

report=
add_json report thresholds "{\"warning_percent\":$WARNING_PERCENT,\"critical_percent\":$CRITICAL_PERCENT}"
add_json report mounts "[$mounts]"
send_report "$report"
