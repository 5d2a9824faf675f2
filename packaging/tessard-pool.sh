#!/bin/bash
# Sets up, removes or shows the memory-capped cgroup that tessard starts its plugins in.
#
#   tessard-pool.sh create [--root DIR] [--cap-mb N]   make the pool, capped at N MiB (512);
#                                                      an existing pool keeps its cap unless
#                                                      --cap-mb is given
#   tessard-pool.sh remove [--root DIR]                remove it and the groups create made
#   tessard-pool.sh status [--root DIR]                show what exists
#
# DIR defaults to $TESSARD_CGROUP_ROOT, else /sys/fs/cgroup. As in the daemon, the pool goes
# below DIR when DIR is a cgroup v2 hierarchy or a cgroup v1 memory group, else below
# DIR/memory when that is a cgroup v1 memory hierarchy. The parent groups that create had to
# make are listed under $TESSARD_POOL_STATE_DIR (default /run/tessard-pool, which, like the
# cgroups, does not outlive a reboot), so that remove takes away those and no others.
#
# Exit codes: 0 done (status: the pool exists); 1 failed (status: no pool); 2 bad usage;
# 3 no cgroup hierarchy that can cap memory.
set -euo pipefail

readonly CHAIN=(host zol kelpod tessard-plugins)
readonly DEFAULT_CAP_MB=512
readonly STATE_DIR=${TESSARD_POOL_STATE_DIR:-/run/tessard-pool}

die() {
    local code=$1
    shift
    echo "tessard-pool: $*" >&2
    exit "$code"
}

help() { sed -n '2,/^set -euo/{/^#/s/^# \{0,1\}//p}' "$0"; }

usage() {
    [[ $# -eq 0 ]] || echo "tessard-pool: $*" >&2
    echo "usage: tessard-pool.sh create|remove|status [--root DIR] [--cap-mb N]" >&2
    exit 2
}

# Sets HIERARCHY and KIND (v1 or v2) from ROOT.
find_hierarchy() {
    local root=${ROOT%/}
    root=${root:-/}
    if [[ -e $root/cgroup.controllers ]]; then
        HIERARCHY=$root KIND=v2
    elif [[ -e $root/memory.limit_in_bytes ]]; then
        HIERARCHY=$root KIND=v1
    elif [[ -e $root/memory/memory.limit_in_bytes ]]; then
        HIERARCHY=$root/memory KIND=v1
    else
        die 3 "no cgroup hierarchy that can cap memory at $ROOT"
    fi
    POOL=$HIERARCHY/$(IFS=/; echo "${CHAIN[*]}")
    STATE_FILE=$STATE_DIR/${HIERARCHY//\//_}.created
    # v1 keeps the pids controller in a hierarchy of its own beside memory; the daemon
    # looks for the pool's counterpart there, the same path with memory/ replaced by pids/.
    PIDS_HIERARCHY= PIDS_POOL=
    if [[ $KIND == v1 && $HIERARCHY == */memory* ]]; then
        local prefix=${HIERARCHY%%/memory*}
        local rest=${HIERARCHY#"$prefix/memory"}
        if [[ (-z $rest || $rest == /*) && -e $prefix/pids/cgroup.procs && -d $prefix/pids$rest ]]; then
            PIDS_HIERARCHY=$prefix/pids$rest
            PIDS_POOL=$PIDS_HIERARCHY/$(IFS=/; echo "${CHAIN[*]}")
        fi
    fi
}

limit_file() { if [[ $KIND == v2 ]]; then echo memory.max; else echo memory.limit_in_bytes; fi; }

# Writes a value to a control file; cgroup files give their reason as a write error.
write_value() {
    local file=$1 value=$2 error
    if ! error=$({ printf '%s\n' "$value" >"$file"; } 2>&1); then
        die 1 "cannot write $value to $file: ${error##*: }"
    fi
}

# On v2 a group's children get the memory controller only when the group hands it down.
enable_memory() {
    local dir=$1
    if ! grep -qw memory "$dir/cgroup.subtree_control"; then
        write_value "$dir/cgroup.subtree_control" +memory
    fi
}

was_created() { [[ -f $STATE_FILE ]] && grep -qxF "$1" "$STATE_FILE"; }

record_created() {
    mkdir -p "$STATE_DIR"
    was_created "$1" || echo "$1" >>"$STATE_FILE"
}

forget_created() {
    [[ -f $STATE_FILE ]] || return 0
    local rest
    rest=$(grep -vxF "$1" "$STATE_FILE" || true)
    if [[ -n $rest ]]; then
        echo "$rest" >"$STATE_FILE"
    else
        rm -f "$STATE_FILE"
    fi
}

# Makes the groups from $1 down to the pool, recording the ones it made; on v2 each hands
# memory down to its children.
make_chain() {
    local dir=$1 name error
    for name in "${CHAIN[@]}"; do
        if [[ $KIND == v2 ]]; then enable_memory "$dir"; fi
        dir=$dir/$name
        if [[ ! -d $dir ]]; then
            error=$(mkdir "$dir" 2>&1) || die 1 "cannot create $dir: ${error##*: }"
            record_created "$dir"
        fi
    done
}

create() {
    find_hierarchy
    # Under systemd on v2 the unit delegates the daemon its group, which holds the pool.
    if [[ $KIND == v2 && -n ${INVOCATION_ID:-} && -z ${TESSARD_CGROUP_ROOT:-} ]]; then
        echo "cgroup v2 under systemd: the daemon keeps its pool in its own delegated group"
        return
    fi
    if [[ $KIND == v2 ]] && ! grep -qw memory "$HIERARCHY/cgroup.controllers"; then
        die 1 "the memory controller is not available in $HIERARCHY"
    fi
    local existed=0
    [[ -d $POOL ]] && existed=1
    make_chain "$HIERARCHY"
    if [[ $KIND == v2 ]]; then enable_memory "$POOL"; fi
    if [[ -n $PIDS_POOL ]]; then make_chain "$PIDS_HIERARCHY"; fi
    # The service runs create at every start: an operator's cap stays unless one is given.
    if ((existed)) && [[ -z $CAP_GIVEN ]]; then
        echo "pool $POOL ready, capped at $(cat "$POOL/$(limit_file)") bytes"
        return
    fi
    write_value "$POOL/$(limit_file)" $((CAP_MB * 1024 * 1024))
    echo "pool $POOL ready, capped at $CAP_MB MiB"
}

# Removes a pool (given empty plugin groups only), then its parents, deepest first, as far as
# create made them and they are empty.
remove_chain() {
    local pool=$1 base=$2 child dir
    if [[ -d $pool ]]; then
        for child in "$pool"/*/; do
            [[ -d $child ]] || continue
            rmdir "${child%/}" 2>/dev/null || die 1 "plugin group ${child%/} still has processes"
        done
        rmdir "$pool" 2>/dev/null || die 1 "cannot remove $pool: it still has processes"
        echo "removed $pool"
    else
        echo "no pool at $pool"
    fi
    forget_created "$pool"
    dir=${pool%/*}
    while [[ $dir != "$base" ]]; do
        if was_created "$dir"; then
            if [[ -d $dir ]] && ! rmdir "$dir" 2>/dev/null; then
                echo "kept $dir: it holds other groups"
                break
            fi
            forget_created "$dir"
        fi
        dir=${dir%/*}
    done
}

remove() {
    find_hierarchy
    remove_chain "$POOL" "$HIERARCHY"
    if [[ -n $PIDS_POOL ]]; then remove_chain "$PIDS_POOL" "$PIDS_HIERARCHY"; fi
}

status() {
    find_hierarchy
    local dir=$HIERARCHY name count=0 child
    echo "hierarchy: $HIERARCHY (cgroup $KIND)"
    for name in "${CHAIN[@]}"; do
        dir=$dir/$name
        if [[ -d $dir ]]; then echo "present: $dir"; else echo "absent:  $dir"; fi
    done
    [[ -d $POOL ]] || return 1
    echo "cap: $(cat "$POOL/$(limit_file)") bytes"
    if [[ -n $PIDS_POOL ]]; then
        if [[ -d $PIDS_POOL ]]; then echo "pids pool: $PIDS_POOL"; else echo "absent:  $PIDS_POOL"; fi
    fi
    for child in "$POOL"/*/; do
        [[ -d $child ]] || continue
        count=$((count + 1))
        echo "plugin group: $(basename "$child"), $(wc -l <"$child/cgroup.procs") processes"
    done
    echo "plugin groups: $count"
}

[[ $# -ge 1 ]] || usage
if [[ $1 == -h || $1 == --help ]]; then
    help
    exit 0
fi
COMMAND=$1
shift
ROOT=${TESSARD_CGROUP_ROOT:-/sys/fs/cgroup}
CAP_MB=$DEFAULT_CAP_MB
CAP_GIVEN=
while [[ $# -gt 0 ]]; do
    case $1 in
        --root)
            [[ $# -ge 2 ]] || usage "--root needs a directory"
            ROOT=$2
            shift 2
            ;;
        --cap-mb)
            [[ $# -ge 2 ]] || usage "--cap-mb needs a number"
            [[ $COMMAND == create ]] || usage "--cap-mb goes with create"
            CAP_MB=$2 CAP_GIVEN=1
            shift 2
            ;;
        -h | --help)
            help
            exit 0
            ;;
        *) usage "unknown argument '$1'" ;;
    esac
done
# Twelve digits keep the byte count well inside 64 bits.
[[ $CAP_MB =~ ^[1-9][0-9]{0,11}$ ]] || usage "--cap-mb needs a positive number of MiB, not '$CAP_MB'"

case $COMMAND in
    create) create ;;
    remove) remove ;;
    status) status ;;
    *) usage "unknown command '$COMMAND'" ;;
esac
