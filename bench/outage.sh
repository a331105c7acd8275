#!/bin/bash
# SPDX-License-Identifier: ISC
# An outage rehearsal: a fleet of gateways through a network outage,
# measured and plotted.
#
#   bench/outage.sh [N] [OUTAGE_S] [OUT_DIR]
#
# Starts N sandboxes (default 50), each with its own simulated modem and the
# daemon asked to stay connected (dial 3), at random phases over one status
# poll period (12 s). Once all are connected, every simulator drops its call
# and refuses every start (error 14, "Call failed") for OUTAGE_S seconds
# (default 120, at least 30: the daemons see a drop 12 to 24 s late), then
# accepts again. From the simulators' records (monotonic time) it measures
# when each daemon saw the drop, start requests per second across the fleet
# during the outage, and the time from the recovery until each gateway has
# status 3 again; from /proc, host CPU and memory per sandbox. OUT_DIR
# (default build/outage-N-OUTAGE_S) gets outage.txt (the figures),
# outage.csv (one row per second) with outage.png (its plot, by gnuplot) and
# gateways.csv (each gateway's figures).
#
# Builds nothing: WDS_BUILD (default build/default) must hold wdsd and
# sim/. Needs root. Every sandbox keeps its traffic in its own network
# namespace; every wait has a limit; everything started is removed when the
# script ends, also on Ctrl-C or SIGTERM. Exits 1 when it measured nothing
# (a gateway that never connected, no start request during the outage, no
# plot), and, after writing the figures, when a gateway was not back to
# status 3 within 60 s of the recovery or a daemon or simulator had ended.
set -uo pipefail
export LC_ALL=C

usage() {
  echo "usage: bench/outage.sh [N] [OUTAGE_S] [OUT_DIR]   (N 1..1000, OUTAGE_S 30..3600)" >&2
  exit 2
}
[ $# -le 3 ] || usage
N=${1:-50}
OUTAGE_S=${2:-120}
# in_range VALUE MIN MAX: a decimal number within the bounds.
in_range() { [[ "$1" =~ ^[0-9]{1,5}$ ]] && ((10#$1 >= $2 && 10#$1 <= $3)); }
in_range "$N" 1 1000 || usage
in_range "$OUTAGE_S" 30 3600 || usage
N=$((10#$N))
OUTAGE_S=$((10#$OUTAGE_S))
HERE=$(cd "$(dirname "$0")" && pwd)
BUILD=${WDS_BUILD:-build/default}
DAEMON=$BUILD/wdsd
SANDBOX=$BUILD/sim/wds-sandbox
SIMCTL=$BUILD/sim/wds-simctl
for f in "$DAEMON" "$SANDBOX" "$SIMCTL" "$BUILD/sim/wds-sim"; do
  [ -x "$f" ] || { echo "outage: $f is missing; build first (./x build)" >&2; exit 2; }
done
command -v gnuplot >/dev/null || { echo "outage: gnuplot is missing (apt-get install gnuplot-nox)" >&2; exit 2; }
[ "$(id -u)" -eq 0 ] || { echo "outage: the sandboxes need root (namespaces, tun, FUSE)" >&2; exit 2; }
OUT=${3:-build/outage-$N-$OUTAGE_S}
mkdir -p "$OUT" || exit 2
rm -f "$OUT"/outage.txt "$OUT"/outage.csv "$OUT"/outage.png "$OUT"/gateways.csv

PHASES_MS=12000       # start phases spread over one status poll period
REFUSAL=14            # "Call failed"
DROP_REASON=4         # "Receive release from BS - no reason given"
START_LIMIT_S=$((60 + N / 2))
RECOVERY_LIMIT_S=60
TAIL_S=4              # one tick more on the plot after the last gateway is back

WORK=$(mktemp -d /tmp/wds-outage.XXXXXX)
GW=()       # exchange directories
RUNNERS=()  # wds-sandbox processes, one per gateway
INITS=()    # their PID 1s as the host sees them

say() { printf '[%s] %s\n' "$(date +%T)" "$*"; }
fail() { say "$*" >&2; exit 1; }
now_ms() { local t=${EPOCHREALTIME/./}; echo $((t / 1000)); }
# A pause a trapped signal cuts short.
pause() { sleep "$1" & wait $!; }
# pause_until MS: until now_ms reaches MS.
pause_until() {
  local ms=$(($1 - $(now_ms)))
  ((ms <= 0)) || pause "$((ms / 1000)).$(printf %03d $((ms % 1000)))"
}
load_now() { uptime | sed 's/.*load average: //'; }

# Every sandbox is ended the way Ctrl-C ends one (its PID 1 stops all inside;
# mounts, interface and processes go with the namespaces), then killed if it
# lingers; PID 1 dies with its runner.
stop_fleet() {
  local pids pid deadline
  pids=$(jobs -p)
  [ -n "$pids" ] || return 0
  # shellcheck disable=SC2086
  kill -TERM $pids 2>/dev/null
  deadline=$(($(now_ms) + 20000))
  for pid in $pids; do
    while kill -0 "$pid" 2>/dev/null && (($(now_ms) < deadline)); do sleep 0.1; done
  done
  # shellcheck disable=SC2086
  kill -KILL $pids 2>/dev/null
  wait 2>/dev/null
  deadline=$(($(now_ms) + 20000))
  for pid in "${INITS[@]}"; do
    while kill -0 "$pid" 2>/dev/null && (($(now_ms) < deadline)); do sleep 0.1; done
  done
}
cleanup() {
  trap - EXIT INT TERM HUP
  stop_fleet
  rm -rf "$WORK"
}
trap cleanup EXIT
trap 'echo; say "interrupted: removing the sandboxes" >&2; exit 130' INT TERM HUP

# count_status3: gateways whose status file reads 3.
count_status3() {
  local n=0 init s
  for init in "${INITS[@]}"; do
    s=""
    { read -r s <"/proc/$init/root/var/wan/rmnet0/status"; } 2>/dev/null
    [ "$s" = 3 ] && n=$((n + 1))
  done
  echo "$n"
}
# wait_status3 LIMIT_S: until every gateway has status 3; false at the limit.
wait_status3() {
  local deadline=$(($(now_ms) + $1 * 1000))
  while (($(count_status3) < N)); do
    (($(now_ms) < deadline)) || return 1
    pause 0.5
  done
}
# tell ARGS...: the same simulator command to every gateway, in order.
tell() {
  local d
  for d in "${GW[@]}"; do
    "$SIMCTL" "$d" "$@" >/dev/null || fail "the simulator in $d refused: $*"
  done
}

# snapshot [memory]: per gateway "CPU ms of all its processes, of wdsd,
# Pss kB of all its processes, of wdsd" (0 without "memory"), from the
# process tree under each runner: every thread's run time, and the time of
# the children each has reaped.
snapshot() {
  {
    for i in "${!RUNNERS[@]}"; do echo "runner ${RUNNERS[i]} $i"; done
    ps -e -o pid=,ppid= | sed 's/^/process /'
    grep -H "" /proc/[0-9]*/task/*/schedstat 2>/dev/null | sed 's/^/thread /'
  } | awk -v ticks="$(getconf CLK_TCK)" -v memory="${1:-}" '
    $1 == "runner" { gw[$2] = $3; next }
    $1 == "process" { parent[$2] = $3; list[++n] = $2; next }
    $1 == "thread" { split($2, path, "/"); sub(/.*:/, "", $2); run_ns[path[3]] += $2; next }
    END {
      for (k = 1; k <= n; k++) {
        p = list[k]
        for (q = p; (q in parent) && !(q in gw) && q > 1; q = parent[q]) {}
        if (!(q in gw)) continue
        g = gw[q]
        line = ""
        if ((getline line < ("/proc/" p "/stat")) <= 0) continue
        close("/proc/" p "/stat")
        comm = substr(line, index(line, "(") + 1)
        comm = substr(comm, 1, index(comm, ")") - 1)
        sub(/.*\) /, "", line)
        split(line, f, " ")
        ms = run_ns[p] / 1e6 + (f[14] + f[15]) * 1000 / ticks
        pss = 0
        if (memory != "") {
          while ((getline line < ("/proc/" p "/smaps_rollup")) > 0) if (line ~ /^Pss:/) { split(line, m, " "); pss = m[2] }
          close("/proc/" p "/smaps_rollup")
        }
        cpu[g] += ms
        mem[g] += pss
        if (comm == "wdsd") { dcpu[g] += ms; dmem[g] += pss }
      }
      for (g in cpu) print g, cpu[g], dcpu[g] + 0, mem[g], dmem[g] + 0
    }'
}
# per_gateway_mean FILE COLUMN [FILE0]: mean of a column over the gateways,
# less FILE0's when given.
per_gateway_mean() {
  awk -v c="$2" -v n="$N" 'NR == FNR && ARGC == 3 { base[$1] = $c; next } { s += $c - base[$1] } END { printf "%.2f", s / n }' \
    ${3:+"$3"} "$1"
}
cpu_busy() { awk '/^cpu / { print $2 + $3 + $4 + $7 + $8 + $9, $2 + $3 + $4 + $5 + $6 + $7 + $8 + $9 }' /proc/stat; }
# memory_kb: what the host has available, and its unreclaimable kernel slab
# (where namespaces, mounts and interfaces live).
memory_kb() { awk '/^MemAvailable:/ { a = $2 } /^SUnreclaim:/ { k = $2 } END { print a, k }' /proc/meminfo; }

# ---- the fleet ---------------------------------------------------------------

LOAD_BEFORE=$(load_now)
read -r MEM_BEFORE SLAB_BEFORE < <(memory_kb)
say "load before: $LOAD_BEFORE; starting $N gateways over $((PHASES_MS / 1000)) s in $WORK"
T_LAUNCH=$(now_ms)
mapfile -t PHASES < <(for ((i = 0; i < N; i++)); do echo $(((RANDOM * 32768 + RANDOM) % PHASES_MS)); done | sort -n)
for ((i = 0; i < N; i++)); do
  pause_until $((T_LAUNCH + PHASES[i]))
  d=$WORK/gw$(printf %04d "$i")
  GW+=("$d")
  mkdir "$d"
  setsid "$SANDBOX" --dir "$d" --daemon "$DAEMON" --dial 3 >"$d.out" 2>&1 &
  RUNNERS+=($!)
done
deadline=$((T_LAUNCH + START_LIMIT_S * 1000))
for d in "${GW[@]}"; do
  until [ -e "$d/ready" ]; do
    [ -e "$d/failed" ] && fail "a sandbox did not start: $(cat "$d/failed" "$d.out")"
    (($(now_ms) < deadline)) || fail "not every sandbox started in $START_LIMIT_S s"
    pause 0.2
  done
  INITS+=("$(cat "$d/init.pid")")
done
remaining_s=$(((deadline - $(now_ms)) / 1000))
wait_status3 $((remaining_s > 0 ? remaining_s : 1)) ||
  fail "$(count_status3) of $N gateways connected in $START_LIMIT_S s: nothing to measure"
T_CONNECTED=$(now_ms)
LOAD_CONNECTED=$(load_now)
read -r MEM_CONNECTED SLAB_CONNECTED < <(memory_kb)
snapshot memory >"$WORK/connected.snap"
say "all $N connected $(((T_CONNECTED - T_LAUNCH) / 1000)) s after the first start; load: $LOAD_CONNECTED"
# One poll period of the fleet in its steady state, for the plot.
pause 12

# ---- the outage --------------------------------------------------------------

say "outage: every simulator drops its call and refuses every start for $OUTAGE_S s"
tell on start fail=$REFUSAL
T_DROP=$(now_ms)
tell drop reason=$DROP_REASON
# CPU is counted over the middle half of the outage, when the daemons
# retry; the snapshots' own time is taken from the quarters around it.
pause_until $((T_DROP + OUTAGE_S * 250))
T_BEGIN=$(now_ms)
read -r BUSY0 TOTAL0 < <(cpu_busy)
snapshot >"$WORK/begin.snap"
pause_until $((T_DROP + OUTAGE_S * 500))
LOAD_OUTAGE=$(load_now)
say "half-way through; load: $LOAD_OUTAGE"
pause_until $((T_DROP + OUTAGE_S * 750))
T_END=$(now_ms)
read -r BUSY1 TOTAL1 < <(cpu_busy)
snapshot >"$WORK/end.snap"
pause_until $((T_DROP + OUTAGE_S * 1000))
say "recovery: every simulator accepts starts again"
tell on start clear
T_RECOVERY=$(now_ms)
ALL_BACK=yes
wait_status3 $RECOVERY_LIMIT_S || ALL_BACK=""
say "$(count_status3) of $N back to status 3 $((($(now_ms) - T_RECOVERY) / 1000)) s after the recovery"
pause $TAIL_S
LOAD_AFTER=$(load_now)
# The fleet's shutdown that follows is not part of the measurement.
tell mark end of the rehearsal
alive=0
for d in "${GW[@]}"; do
  "$SIMCTL" "$d" init status 2>/dev/null | grep -q "daemon=running .*sim=running" && alive=$((alive + 1))
done
stop_fleet

# ---- the figures ---------------------------------------------------------------

files=()
for d in "${GW[@]}"; do files+=("$d/device.log" "$d/bus.log"); done
awk -v csv="$OUT/outage.csv" -v per_gateway="$OUT/gateways.csv" -v plotvars="$WORK/plot.vars" \
  -f "$HERE/outage_figures.awk" "${files[@]}" >"$WORK/figures.txt" || exit 1
{
  echo "Outage rehearsal: $N gateways (sandboxes), outage of $OUTAGE_S s, $(nproc) cores, $(date -u +'%F %H:%M UTC')"
  cat "$WORK/figures.txt"
  echo "daemons and simulators still running at the end: $alive of $N"
  echo "start-up: all $N connected $(((T_CONNECTED - T_LAUNCH) / 1000)) s after the first sandbox started (phases over $((PHASES_MS / 1000)) s)"
  awk -v c="$(per_gateway_mean "$WORK/end.snap" 2 "$WORK/begin.snap")" \
    -v d="$(per_gateway_mean "$WORK/end.snap" 3 "$WORK/begin.snap")" -v s="$(((T_END - T_BEGIN) / 1000)).$(printf %03d $(((T_END - T_BEGIN) % 1000)))" -v n="$N" \
    -v b="$((BUSY1 - BUSY0))" -v a="$((TOTAL1 - TOTAL0))" -v cores="$(nproc)" 'BEGIN {
    printf "CPU in the middle half of the outage, per sandbox: %.2f ms/s (all its processes; %.1f %% of a core for the fleet),\n  wdsd alone %.2f ms/s (the shell commands it runs, through a detached child, count with its sandbox)\n",
      c / s, c * n / 10 / s, d / s
    printf "  host busy %.0f %% of its %d cores meanwhile, the other users of the machine included\n", b * 100 / a, cores
  }'
  printf 'memory per sandbox, all connected: Pss %.0f kB (wdsd %.0f kB); host MemAvailable changed by %+d kB per sandbox,\n' \
    "$(per_gateway_mean "$WORK/connected.snap" 4)" "$(per_gateway_mean "$WORK/connected.snap" 5)" \
    $(((MEM_CONNECTED - MEM_BEFORE) / N))
  printf '  its unreclaimable kernel slab by %+d kB per sandbox (both with the other users of the machine)\n' \
    $(((SLAB_CONNECTED - SLAB_BEFORE) / N))
  echo "load average (1, 5, 15 min): before $LOAD_BEFORE; all connected $LOAD_CONNECTED; mid-outage $LOAD_OUTAGE; after $LOAD_AFTER"
} >"$OUT/outage.txt"
cat "$OUT/outage.txt"

gnuplot -e "csv='$OUT/outage.csv'; png='$OUT/outage.png'; vars='$WORK/plot.vars'; heading='$N gateways through a $OUTAGE_S-s outage (load before: $LOAD_BEFORE)'" \
  "$HERE/outage.gp" || fail "gnuplot failed"
[ -s "$OUT/outage.png" ] || fail "no plot written"
say "written: $OUT/outage.txt, outage.csv, outage.png, gateways.csv"
# Measured, but a fleet that did not come back whole is a fault to look at.
[ -n "$ALL_BACK" ] || fail "not every gateway was back to status 3 within $RECOVERY_LIMIT_S s of the recovery"
((alive == N)) || fail "$((N - alive)) daemons or simulators ended during the rehearsal"
