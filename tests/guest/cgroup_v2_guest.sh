#!/usr/bin/env bash
# cgroup_v2_guest.sh TESSARD_BINARY PLUGIN_PROBE: runs the daemon in Debian's kernel under qemu
# (TCG) from a busybox initramfs, in a group marked as delegated as systemd's Delegate=yes does;
# it must keep its pool there, cap memory and processes, stop groups whole and report an OOM
# kill by name. Exit codes: 0 passed, 1 failed, 77 skipped (no qemu, kernel or busybox here).
set -euo pipefail

tessard=${1:?usage: cgroup_v2_guest.sh TESSARD_BINARY PLUGIN_PROBE}
probe=${2:?usage: cgroup_v2_guest.sh TESSARD_BINARY PLUGIN_PROBE}

skip() { echo "SKIPPED: $*" && exit 77; }
for tool in qemu-system-x86_64 cpio setfattr; do
    command -v $tool >/dev/null || skip "$tool is not installed"
done
kernel=$(ls /boot/vmlinuz-* 2>/dev/null | sort -V | tail -n 1) || true
[[ -n $kernel && -r $kernel ]] || skip "no readable kernel in /boot (linux-image-amd64)"
[[ -x /bin/busybox ]] || skip "busybox-static is not installed"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
tree=$work/tree
mkdir -p "$tree"/{bin,dev,proc,sys,tmp,etc,lib64}

copy_with_libraries() {  # binary target: with the shared libraries it loads, at the same paths
    cp "$1" "$tree/$2"
    for library in $(ldd "$1" | grep -o '/[^ ]*'); do
        mkdir -p "$tree/$(dirname "$library")" && cp -L "$library" "$tree/$library"
    done
}
cp /bin/busybox "$tree/bin/busybox" && ln -s busybox "$tree/bin/sh"
copy_with_libraries "$tessard" bin/tessard
copy_with_libraries "$(command -v setfattr)" bin/setfattr
echo "127.0.0.1 localhost" >"$tree/etc/hosts"

root=$tree/t
bin=$root/usr/lib/tolmar/tessard/plugins/bin
config=$root/usr/lib/tolmar/tessard/plugins/config
mkdir -p "$bin" "$config" "$root/etc/tolmar/cpservices/tessard"
copy_with_libraries "$probe" t/usr/lib/tolmar/tessard/plugins/bin/hog
plugin() {  # name frequency body
    printf '#!/bin/sh\n%s\n' "$3" >"$bin/$1" && chmod 755 "$bin/$1"
    printf '{"path": "%s", "frequency": "%s"}\n' "$1" "$2" >"$config/$1.json"
}
echo '{"path": "hog", "frequency": "slow"}' >"$config/hog.json"
plugin probe fast 'cat /proc/self/cgroup'
# The shell gives up at the first fork the cap refuses, leaving its children behind.
plugin forker fast 'i=0; while [ $i -lt 80 ]; do sleep 100 & i=$((i+1)); done'
plugin stubborn fast "trap '' TERM; echo trapped; while :; do sleep 1; done"
cat >"$root/etc/tolmar/cpservices/tessard/config.xml" <<'EOF'
<config><httpPort>9996</httpPort><log><level>trivia</level></log>
<pluginOverrides><forker><pidsMax>50</pidsMax></forker></pluginOverrides></config>
EOF

cat >"$tree/init" <<'EOF'
#!/bin/sh
/bin/busybox --install -s /bin
export PATH=/bin
mount -t proc proc /proc && mount -t sysfs sys /sys && mount -t devtmpfs dev /dev
mount -t tmpfs tmp /tmp && ip link set lo up
cg=/sys/fs/cgroup fail=""
check() { grep -q "$1" /tmp/log || fail="$fail; $2"; }  # pattern what

mount -t cgroup2 cgroup2 $cg
echo "+memory +pids" >$cg/cgroup.subtree_control
mkdir $cg/tessard.service && setfattr -n trusted.delegate -v 1 $cg/tessard.service

# Launches, stops and the OOM kill, at 30 times the speed.
sh -c "echo \$\$ >$cg/tessard.service/cgroup.procs
    exec env -i TESSARD_ROOT=/t TESSARD_TIME_SCALE=30 /bin/tessard -r /tmp/" >/tmp/log 2>&1 &
daemon=$!
sleep 25
check "Plugin pool kept in the delegated group /sys/fs/cgroup/tessard.service" "pool not in the delegated group"
grep -q '^0::/tessard.service/daemon$' /proc/$daemon/cgroup || fail="$fail; daemon not in its leaf"
check "probe: 0::/tessard.service/host/zol/kelpod/tessard-plugins/run-" "probe not in its group"
check "forker: stopping 49 processes it left behind" "pids.max not set to 50"
check "Plugin stubborn was stopped at its next batch: killed after ignoring SIGTERM" "no SIGKILL after the grace"
check "Plugin hog was killed by the kernel: out of memory (limit 40 MB)" "no OOM line"
kill -TERM $daemon
wait $daemon && echo "daemon stopped: 0" || fail="$fail; daemon stop failed"
left=$(cat $cg/tessard.service/host/zol/kelpod/tessard-plugins/*/cgroup.procs 2>/dev/null | wc -l)
[ "$left" = 0 ] || fail="$fail; $left processes left after the daemon's stop"
others=$(ls -d $cg/*/ | grep -v '/tessard.service/$' | wc -l)
[ "$others" = 0 ] || fail="$fail; groups made outside the delegated one"

[ -z "$fail" ] || { echo "----- daemon log -----" && grep -v ' trivia ' /tmp/log | tail -n 60; }
verdict=${fail:+FAIL$fail}
echo "GUEST-VERDICT: ${verdict:-PASS}"
poweroff -f
EOF
chmod 755 "$tree/init"
(cd "$tree" && find . | cpio -o -H newc --quiet | gzip -1) >"$work/initramfs.gz"

console=$work/console
timeout 300 qemu-system-x86_64 -accel tcg -cpu max -m 256 -nographic -no-reboot -kernel "$kernel" \
    -initrd "$work/initramfs.gz" -append "console=ttyS0 panic=-1 quiet" </dev/null >"$console" 2>&1 || true
sed -n '/^GUEST-\|^-----/,$p' "$console" | grep -v '^\[' || true
grep -q 'GUEST-VERDICT:' "$console" ||
    { echo "no verdict from the guest; its console ends with:" && tail -n 40 "$console" && exit 1; }
grep -q 'GUEST-VERDICT: PASS' "$console"
