#!/usr/bin/env bash
# The report path against nginx, interleaved, in one run: tessard (release build); nginx as a
# WebDAV server taking PUTs (a temporary file, then a rename: the same storage work without
# ring and link); and nginx answering 200 after discarding the body (the HTTP floor). Bodies
# of 1 KiB, 64 KiB and 1 MiB, 1 and 64 names, 1 and 64 connections, REPS repetitions.
# Then memory (idle, and with 1000 idle keep-alive connections) and a slow-client scenario.
# Prints one table and writes it as Markdown to OUT.
#
# Knobs: FS=tmpfs (default) or FS=ext4 (a directory under /var/tmp), DURATION (5s), REPS (3),
# OUT (bench/results.md), SIZES, NAME_COUNTS, CONNECTIONS (space-separated lists).
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
case $FS in
    tmpfs) base=/dev/shm ;;
    ext4) base=/var/tmp ;;
    *) echo "FS is tmpfs or ext4" >&2; exit 2 ;;
esac
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

port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }

# tessard
tport=$(port)
mkdir -p "$work/root/etc/tolmar/cpservices/tessard" "$work/root/usr/lib/tolmar/tessard/plugins/"{config,bin} "$data/tessard"
echo "<config><httpPort>$tport</httpPort><log><level>warning</level></log></config>" \
    >"$work/root/etc/tolmar/cpservices/tessard/config.xml"
TESSARD_ROOT=$work/root build-release/tessard -r "$data/tessard" 2>"$work/tessard.log" &
pids+=($!)
declare -A server_pid server_port server_method
server_pid[tessard]=$!; server_port[tessard]=$tport; server_method[tessard]=POST

# nginx: one configuration each for the WebDAV PUT and the discarding floor.
start_nginx() {
    local name=$1 location=$2 p
    p=$(port)
    mkdir -p "$work/$name" "$data/$name/tmp" "$data/$name/files"
    cat >"$work/$name/nginx.conf" <<CONF
user $(id -un);
worker_processes $(nproc);
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
    nginx -c "$work/$name/nginx.conf" -p "$work/$name" &
    pids+=($!)
    server_pid[$name]=$!; server_port[$name]=$p
}
start_nginx nginx-put "root $data/nginx-put/files; dav_methods PUT; create_full_put_path on;"
server_method[nginx-put]=PUT
start_nginx nginx-floor "return 200;"
server_method[nginx-floor]=POST
sleep 1
servers=(tessard nginx-put nginx-floor)

# A server's processes: its main process and the workers it started.
procs() { echo "$1" $(pgrep -P "$1" || true); }
cpu_ticks() { local t=0 p; for p in $(procs "$1"); do t=$((t + $(awk '{print $14 + $15}' "/proc/$p/stat"))); done; echo $t; }
switches() {
    local t=0 p
    for p in $(procs "$1"); do
        t=$((t + $(cat /proc/"$p"/task/*/status | awk '/ctxt_switches/ {s += $2} END {print s}')))
    done
    echo $t
}
rss_kb() { local t=0 p; for p in $(procs "$1"); do t=$((t + $(awk '/VmRSS/ {print $2}' "/proc/$p/status"))); done; echo $t; }
hz=$(getconf CLK_TCK)

# Memory first, on servers that have not yet seen load: idle, then with 500 and with 1000 idle
# keep-alive connections held. Per connection is what the second 500 added, so one-time costs
# (allocator arenas, the first report names) are not counted as per-connection memory.
hold() {  # server count: starts a holder, returns once its connections are up
    local fifo=$work/hold-$RANDOM
    mkfifo "$fifo.in" "$fifo.out"
    python3 bench/clients.py hold "${server_port[$1]}" "$2" "${server_method[$1]}" \
        <"$fifo.in" >"$fifo.out" &
    exec {holder}>"$fifo.in"
    holders+=("$holder")
    read -r _ <"$fifo.out"
}
echo "server,idle_kb,held_kb,per_conn_kb" >"$work/memory.csv"
for s in "${servers[@]}"; do
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

run() {  # server size names connections rep
    local s=$1 size=$2 names=$3 conns=$4 pid=${server_pid[$1]} threads=1 out c0 c1 x0 x1
    [ "$conns" -gt 1 ] && threads=2
    c0=$(cpu_ticks "$pid"); x0=$(switches "$pid")
    out=$(METHOD=${server_method[$s]} NAMES=$names SIZE=$size PREFIX=/r wrk -t$threads -c"$conns" \
        -d"$DURATION" --latency -s bench/post.lua "http://127.0.0.1:${server_port[$s]}/" | grep RESULT)
    c1=$(cpu_ticks "$pid"); x1=$(switches "$pid")
    echo "$s,$size,$names,$conns,$5,$out,$((c1 - c0)),$((x1 - x0))" >>"$work/runs.csv"
}
for rep in $(seq "$REPS"); do
    for size in $SIZES; do
        for names in $NAME_COUNTS; do
            for conns in $CONNECTIONS; do
                for s in "${servers[@]}"; do run "$s" "$size" "$names" "$conns" "$rep"; done
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
python3 bench/clients.py trickle "$tport" 64 300 25 &
trickler=$!
sleep 3
slow=$(METHOD=POST NAMES=1 SIZE=1024 PREFIX=/good wrk -t1 -c1 -d15s --latency -s bench/post.lua \
    "http://127.0.0.1:$tport/" | grep RESULT)
wait "$trickler" || true

python3 - "$work" "$OUT" "$FS" "$hz" "$slow" <<'PY'
import csv, statistics, sys, os
work, out, fs, hz, slow = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4]), sys.argv[5]
runs = {}
for row in csv.reader(open(os.path.join(work, "runs.csv"))):
    server, size, names, conns, rep, result, ticks, switches = row
    fields = dict(f.split("=") for f in result.split()[1:])
    n = int(fields["requests"])
    runs.setdefault((int(size), int(names), int(conns), server), []).append({
        "rps": n / float(fields["seconds"]), "p50": float(fields["p50_ms"]),
        "p99": float(fields["p99_ms"]), "cpu": int(ticks) / hz / max(n, 1) * 1e6,
        "cs": int(switches) / max(n, 1), "bad": int(fields["errors"]) + int(fields["non2xx"])})
filework = {(int(s), int(n)): float(us) for s, n, us in csv.reader(open(os.path.join(work, "filework.csv")))}

def med(values):
    return statistics.median(values)

def spread(values):
    m = med(values)
    return 100 * (max(values) - min(values)) / m if m else 0

def size_name(size):
    return f"{size // 1048576} MiB" if size >= 1048576 else f"{size // 1024} KiB"

lines = [f"# Report path benchmark ({fs}, {os.cpu_count()} cores, wrk on the same cores)", "",
         "Medians of the repetitions; ± is the spread (max − min) in % of the median. "
         "CPU and context switches are the server's, per request. The floor is nginx "
         "discarding the body plus the bare file work of one report.", "",
         "| body | names | conns | server | req/s | p50 ms | p99 ms | CPU µs | ctx sw | errors |"
         " vs nginx PUT | CPU vs floor |",
         "|---|---|---|---|---|---|---|---|---|---|---|---|"]
for key in sorted({k[:3] for k in runs}):
    size, names, conns = key
    get = lambda s: runs.get(key + (s,))
    put, floor = get("nginx-put"), get("nginx-floor")
    for server in ("tessard", "nginx-put", "nginx-floor"):
        r = get(server)
        if not r:
            continue
        rps = [x["rps"] for x in r]
        ratio = cpu_ratio = ""
        if server == "tessard" and put:
            ratio = f"{med(rps) / med([x['rps'] for x in put]):.2f}×"
        if server == "tessard" and floor:
            base = med([x["cpu"] for x in floor]) + filework.get((size, names), 0)
            cpu_ratio = f"{med([x['cpu'] for x in r]) / base:.2f}×"
        lines.append(
            f"| {size_name(size)} | {names} | {conns} | {server} | {med(rps):.0f} ±{spread(rps):.0f}% "
            f"| {med([x['p50'] for x in r]):.2f} | {med([x['p99'] for x in r]):.2f} "
            f"| {med([x['cpu'] for x in r]):.1f} | {med([x['cs'] for x in r]):.2f} "
            f"| {sum(x['bad'] for x in r)} | {ratio} | {cpu_ratio} |")
lines += ["", "Bare file work of one report (µs of CPU): " +
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
text = "\n".join(lines) + "\n"
open(out, "w").write(text)
print(text)
PY
