#!/usr/bin/env bash
# The report path against nginx, interleaved, in one run: tessard (release build); nginx as a
# WebDAV server taking PUTs (a temporary file, then a rename: the same storage work without
# ring and link); and nginx answering 200 after discarding the body (the HTTP floor). Bodies
# of 1 KiB, 64 KiB and 1 MiB, 1 and 64 names, 1 and 64 connections, REPS repetitions.
#
# Two modes. "shared": servers and the load generator on all CPUs, as a busy host runs them.
# "apart": each server on CPUs of its own (CORES of them, default half the machine, CPU 0 on
# two cores; one tessard loop and one nginx worker per CPU) and wrk on the rest, so that the CPU
# per report is the server's alone. CPU per report is split into user and kernel time.
#
# Then memory (idle, and per idle keep-alive connection), a slow-client scenario, the cost of
# the kernel lookup of a client's user per connection, and KILLS rounds of the crash test
# (SIGKILL at random instants under reports to 16 names, then every slot, link and temporary
# checked). Prints one table and writes it as Markdown to OUT.
#
# Knobs: FS=tmpfs (default) or FS=ext4 (a directory under /var/tmp), DURATION (5s), REPS (3),
# OUT (bench/results.md), SIZES, NAME_COUNTS, CONNECTIONS (space-separated lists), MODES
# ("shared apart"), CORES (the apart servers' CPUs), KILLS (200; 0 skips the crash test).
set -euo pipefail
cd "$(dirname "$0")/.."

need=()
command -v wrk >/dev/null || need+=(wrk)
command -v nginx >/dev/null || need+=(nginx-light)
command -v python3 >/dev/null || need+=(python3)
if [ ${#need[@]} -gt 0 ]; then
    apt-get update -qq
    # Debian starts nginx on port 80 when it is installed; this benchmark runs its own.
    printf '#!/bin/sh\nexit 101\n' >/usr/sbin/policy-rc.d && chmod +x /usr/sbin/policy-rc.d
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${need[@]}" >/dev/null
    rm -f /usr/sbin/policy-rc.d
fi
BUILD_DIR=build-release BUILD_TYPE=Release scripts/build.sh -DBUILD_TESTING=OFF >/dev/null

FS=${FS:-tmpfs}
DURATION=${DURATION:-5s}
REPS=${REPS:-3}
OUT=${OUT:-bench/results.md}
SIZES=${SIZES:-1024 65536 1048576}
NAME_COUNTS=${NAME_COUNTS:-1 64}
CONNECTIONS=${CONNECTIONS:-1 64}
MODES=${MODES:-shared apart}
KILLS=${KILLS:-200}
cpus=$(nproc)
CORES=${CORES:-$((cpus / 2 > 0 ? cpus / 2 : 1))}
case $FS in
    tmpfs) base=/dev/shm ;;
    ext4) base=/var/tmp ;;
    *) echo "FS is tmpfs or ext4" >&2; exit 2 ;;
esac
server_cpus=0-$((CORES - 1))
wrk_cpus=$CORES-$((cpus - 1))
[ "$CORES" -lt "$cpus" ] || { echo "CORES must leave a CPU to wrk" >&2; exit 2; }
work=$(mktemp -d)
data=$(mktemp -d "$base/tessard-bench.XXXXXX")
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work" "$data"
}
trap cleanup EXIT
ulimit -n 8192
g++ -O2 -std=c++20 -o "$work/file_work" bench/file_work.cpp
g++ -O2 -std=c++20 -I. -o "$work/identity" bench/identity.cpp build-release/libtessard_core.a -lpthread

port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
declare -A server_pid server_port server_method

# tessard NAME [CPUS LOOPS]: started whole, or on CPUS with LOOPS event loops.
start_tessard() {
    local name=$1 cpuset=${2:-} loops=${3:-} p root=$work/$1
    p=$(port)
    mkdir -p "$root/etc/tolmar/cpservices/tessard" "$root/usr/lib/tolmar/tessard/plugins/"{config,bin} "$data/$name"
    echo "<config><httpPort>$p</httpPort><log><level>warning</level></log><plugins><user>nobody</user></plugins>${loops:+<http><loops>$loops</loops></http>}</config>" \
        >"$root/etc/tolmar/cpservices/tessard/config.xml"
    TESSARD_ROOT=$root ${cpuset:+taskset -c "$cpuset"} build-release/tessard -r "$data/$name" 2>"$work/$name.log" &
    pids+=($!)
    server_pid[$name]=$!; server_port[$name]=$p; server_method[$name]=POST
}

# nginx NAME LOCATION METHOD [CPUS WORKERS]: one configuration each for the WebDAV PUT and the
# discarding floor.
start_nginx() {
    local name=$1 location=$2 method=$3 cpuset=${4:-} workers=${5:-$cpus} p
    p=$(port)
    mkdir -p "$work/$name" "$data/$name/tmp" "$data/$name/files"
    cat >"$work/$name/nginx.conf" <<CONF
user $(id -un);
worker_processes $workers;
pid $work/$name/nginx.pid;
error_log $work/$name/error.log;
daemon off;
events { worker_connections 4096; }
http {
    access_log off;
    client_body_temp_path $data/$name/tmp;
    client_max_body_size 2m;
    server {
        listen 127.0.0.1:$p;
        location / { $location }
    }
}
CONF
    ${cpuset:+taskset -c "$cpuset"} nginx -c "$work/$name/nginx.conf" -p "$work/$name" &
    pids+=($!)
    server_pid[$name]=$!; server_port[$name]=$p; server_method[$name]=$method
}
put="root $data/nginx-put/files; dav_methods PUT; create_full_put_path on;"
start_tessard tessard
start_nginx nginx-put "$put" PUT
start_nginx nginx-floor "return 200;" POST
if [[ " $MODES " == *" apart "* ]]; then
    start_tessard tessard-apart "$server_cpus" "$CORES"
    start_nginx nginx-put-apart "${put//nginx-put/nginx-put-apart}" PUT "$server_cpus" "$CORES"
fi
sleep 1

# A server's processes: its main process and the workers it started.
procs() { echo "$1" $(pgrep -P "$1" || true); }
cpu_ticks() {  # user and kernel clock ticks of all its processes
    local u=0 k=0 p
    for p in $(procs "$1"); do
        read -r pu pk < <(awk '{print $14, $15}' "/proc/$p/stat")
        u=$((u + pu)); k=$((k + pk))
    done
    echo "$u $k"
}
rss_kb() { local t=0 p; for p in $(procs "$1"); do t=$((t + $(awk '/VmRSS/ {print $2}' "/proc/$p/status"))); done; echo $t; }
hz=$(getconf CLK_TCK)

# Memory first, on servers that have not yet seen load: idle, then with 500 and with 1000 idle
# keep-alive connections held. Per connection is what the second 500 added, so one-time costs
# (allocator arenas, the first report names) are not counted as per-connection memory. A
# connection gives its buffer back once it has been idle for a second, so the figures are read
# after two.
hold() {  # server count: starts a holder, returns once its connections are up
    local fifo=$work/hold-$RANDOM
    mkfifo "$fifo.in" "$fifo.out"
    python3 bench/clients.py hold "${server_port[$1]}" "$2" "${server_method[$1]}" \
        <"$fifo.in" >"$fifo.out" &
    exec {holder}>"$fifo.in"
    holders+=("$holder")
    read -r _ <"$fifo.out"
    sleep 2
}
echo "server,idle_kb,held_kb,per_conn_kb" >"$work/memory.csv"
for s in tessard nginx-put nginx-floor; do
    pid=${server_pid[$s]}
    holders=()
    idle=$(rss_kb "$pid")
    hold "$s" 500
    half=$(rss_kb "$pid")
    hold "$s" 500
    full=$(rss_kb "$pid")
    for h in "${holders[@]}"; do exec {h}>&-; done
    echo "$s,$idle,$full,$(awk -v a="$half" -v b="$full" 'BEGIN {printf "%.2f", (b - a) / 500}')" \
        >>"$work/memory.csv"
    sleep 1
done

run() {  # mode server size names connections rep
    local mode=$1 s=$2 size=$3 names=$4 conns=$5 pid threads=1 out u0 k0 u1 k1 pin=""
    pid=${server_pid[$s]}
    [ "$conns" -gt 1 ] && threads=2
    if [ "$mode" = apart ]; then
        pin="taskset -c $wrk_cpus"
        threads=$((cpus - CORES))
        [ "$threads" -gt "$conns" ] && threads=$conns
    fi
    read -r u0 k0 < <(cpu_ticks "$pid")
    out=$(METHOD=${server_method[$s]} NAMES=$names SIZE=$size PREFIX=/r $pin wrk -t$threads \
        -c"$conns" -d"$DURATION" --latency -s bench/post.lua "http://127.0.0.1:${server_port[$s]}/" |
        grep RESULT)
    read -r u1 k1 < <(cpu_ticks "$pid")
    echo "$mode,${s%-apart},$size,$names,$conns,$6,$out,$((u1 - u0)),$((k1 - k0))" >>"$work/runs.csv"
}
for rep in $(seq "$REPS"); do
    for size in $SIZES; do
        for names in $NAME_COUNTS; do
            for mode in $MODES; do
                if [ "$mode" = shared ]; then
                    for conns in $CONNECTIONS; do
                        for s in tessard nginx-put nginx-floor; do
                            run shared "$s" "$size" "$names" "$conns" "$rep"
                        done
                    done
                else
                    for s in tessard-apart nginx-put-apart; do
                        run apart "$s" "$size" "$names" 64 "$rep"
                    done
                fi
            done
        done
    done
done

# The bare file work of a report, per size and name count, for the CPU floor.
for size in $SIZES; do
    for names in $NAME_COUNTS; do
        mkdir -p "$data/files-$size-$names"
        echo "$size,$names,$("$work/file_work" "$data/files-$size-$names" "$size" "$names" 3000)" \
            >>"$work/filework.csv"
    done
done

# Slow clients: 64 bodies and 300 heads trickling in while a good client posts.
tport=${server_port[tessard]}
python3 bench/clients.py trickle "$tport" 64 300 25 &
trickler=$!
sleep 3
slow=$(METHOD=POST NAMES=1 SIZE=1024 PREFIX=/good wrk -t1 -c1 -d15s --latency -s bench/post.lua \
    "http://127.0.0.1:$tport/" | grep RESULT)
wait "$trickler" || true

identity=$("$work/identity" 20000)
kills=""
if [ "$KILLS" -gt 0 ]; then
    scripts/build.sh >/dev/null
    kills=$(TESSARD_KILLS=$KILLS build/tests/tessard_e2e_tests --gtest_filter='CrashLoop.*' 2>&1 |
        grep -E 'kills survived|FAILED|Failure' | head -n 5)
fi

python3 - "$work" "$OUT" "$FS" "$hz" "$slow" "$CORES" "$identity" "$kills" <<'PY'
import csv, statistics, sys, os
work, out, fs, hz, slow, cores, identity, kills = sys.argv[1:9]
hz = int(hz)
runs = {}
for row in csv.reader(open(os.path.join(work, "runs.csv"))):
    mode, server, size, names, conns, rep, result, user, kernel = row
    fields = dict(f.split("=") for f in result.split()[1:])
    n = max(int(fields["requests"]), 1)
    runs.setdefault((mode, int(size), int(names), int(conns), server), []).append({
        "rps": n / float(fields["seconds"]), "p50": float(fields["p50_ms"]),
        "p99": float(fields["p99_ms"]), "user": int(user) / hz / n * 1e6,
        "kernel": int(kernel) / hz / n * 1e6,
        "bad": int(fields["errors"]) + int(fields["non2xx"])})
filework = {(int(s), int(n)): float(us) for s, n, us in csv.reader(open(os.path.join(work, "filework.csv")))}

def med(values):
    return statistics.median(values)

def spread(values):
    m = med(values)
    return 100 * (max(values) - min(values)) / m if m else 0

def size_name(size):
    return f"{size // 1048576} MiB" if size >= 1048576 else f"{size // 1024} KiB"

lines = [f"# Report path benchmark ({fs}, {os.cpu_count()} cores)", "",
         "Medians of the repetitions; ± is the spread (max − min) in % of the median. CPU is the "
         "server's per request, user + kernel µs. shared: servers and wrk on all cores. apart: "
         f"each server on {cores} CPU(s) of its own (one tessard loop, one nginx worker per CPU), "
         "wrk on the others. The floor is nginx discarding the body plus the bare file work of "
         "one report.", "",
         "| mode | body | names | conns | server | req/s | p50 ms | p99 ms | CPU µs (user + kernel) "
         "| errors | vs nginx PUT | CPU vs nginx PUT | CPU vs floor |",
         "|---|---|---|---|---|---|---|---|---|---|---|---|---|"]
for key in sorted({k[:4] for k in runs}, key=lambda k: (k[0] != "shared", k[1], k[2], k[3])):
    mode, size, names, conns = key
    get = lambda s: runs.get(key + (s,))
    put, floor = get("nginx-put"), get("nginx-floor")
    cpu = lambda r: med([x["user"] + x["kernel"] for x in r])
    for server in ("tessard", "nginx-put", "nginx-floor"):
        r = get(server)
        if not r:
            continue
        rps = [x["rps"] for x in r]
        ratio = cpu_put = cpu_floor = ""
        if server == "tessard" and put:
            ratio = f"{med(rps) / med([x['rps'] for x in put]):.2f}×"
            cpu_put = f"{cpu(r) / cpu(put):.2f}×"
        if server == "tessard" and floor:
            cpu_floor = f"{cpu(r) / (cpu(floor) + filework.get((size, names), 0)):.2f}×"
        lines.append(
            f"| {mode} | {size_name(size)} | {names} | {conns} | {server} "
            f"| {med(rps):.0f} ±{spread(rps):.0f}% | {med([x['p50'] for x in r]):.2f} "
            f"| {med([x['p99'] for x in r]):.2f} | {med([x['user'] for x in r]):.1f} + "
            f"{med([x['kernel'] for x in r]):.1f} | {sum(x['bad'] for x in r)} | {ratio} | {cpu_put} "
            f"| {cpu_floor} |")
# One name against tessard's own 64-name rate, per mode, size and connections.
hot = []
for (mode, size, names, conns, server), r in sorted(runs.items()):
    if server == "tessard" and names == 1 and (mode, size, 64, conns, server) in runs:
        many = runs[(mode, size, 64, conns, server)]
        hot.append(f"{mode} {size_name(size)} {conns} conns "
                   f"{med([x['rps'] for x in r]) / med([x['rps'] for x in many]):.2f}×")
lines += ["", "One name against 64 names (tessard): " + ", ".join(hot), ""]
lines += ["Bare file work of one report (µs of CPU): " +
          ", ".join(f"{size_name(s)}/{n} names {us:.1f}" for (s, n), us in sorted(filework.items())), ""]
lines += ["| server | RSS idle KiB | RSS with 1000 idle connections KiB | per idle keep-alive connection KiB |",
          "|---|---|---|---|"]
for server, idle, held, per in csv.reader(open(os.path.join(work, "memory.csv"))):
    if server != "server":
        lines.append(f"| {server} | {idle} | {held} | {per} |")
fields = dict(f.split("=") for f in slow.split()[1:]) if slow else {}
lines += ["", "Slow clients (64 body tricklers, 300 head tricklers) while one good client posts "
          f"1 KiB reports to tessard: {fields.get('requests', '?')} reports, p50 {fields.get('p50_ms', '?')} ms, "
          f"p99 {fields.get('p99_ms', '?')} ms, errors {int(fields.get('errors', 0)) + int(fields.get('non2xx', 0))}."]
mean, median = (identity.split() + ["?", "?"])[:2]
lines += ["", f"Kernel lookup of a client's user, once per accepted connection: {mean} µs mean, "
          f"{median} µs median (20000 loopback connections)."]
if kills:
    lines += ["", f"Crash test: {kills}"]
text = "\n".join(lines) + "\n"
open(out, "w").write(text)
print(text)
PY
