#!/bin/bash
# SPDX-License-Identifier: ISC
# Footprint of the daemon of one build directory, beside its floor program
# (wds-floor: waits and does nothing, compiled and linked as wdsd is):
# stripped size, needed libraries, and, with a call up in the sandbox
# against the simulated modem, private dirty memory, Pss, RSS, heap calls,
# CPU time and wake-ups, the floor measured over the same window.
#
#   bench/footprint.sh [BUILD_DIR] [SECONDS_CONNECTED]
#
# The sandbox and simulator come from BUILD_DIR/sim, or, for a build without
# them (musl), from WDS_SIM_BUILD (default build/default). A build for
# another architecture is sized only. Heap calls are counted by a preloaded
# counter (libwds-malloc-count.so, beside wdsd) in dynamically linked builds
# and by gdb breakpoints in static ones (see the end).
set -euo pipefail
build=${1:-build/default}
seconds=${2:-60}
wdsd=$(realpath "$build/wdsd")
floor=$(realpath "$build/wds-floor")
counter=$build/libwds-malloc-count.so
sim_build=$build
[ -x "$sim_build/sim/wds-sandbox" ] || sim_build=${WDS_SIM_BUILD:-build/default}

machine=$(readelf -h "$wdsd" | sed -n 's/^ *Machine: *//p')
case "$machine" in
  *X86-64*) arch=x86_64 tools="" ;;
  ARM) arch=armhf tools=arm-linux-gnueabihf- ;;
  MIPS*) arch=mips tools=mips-linux-gnu- ;;
  *) arch=$machine tools="" ;;
esac
if readelf -lW "$wdsd" | grep -q INTERP; then linkage=dynamic; else linkage=static; fi

dir=$(mktemp -d)
runner=""
floor_pid=""
stop_call() {
  [ -z "$floor_pid" ] || kill "$floor_pid" 2>/dev/null || true
  if [ -n "$runner" ]; then
    kill -9 "$runner" 2>/dev/null || true
    wait "$runner" 2>/dev/null || true
  fi
  runner="" floor_pid=""
}
trap 'stop_call; rm -rf "$dir"' EXIT

row() { printf '%-26s %-26s %s\n' "$@"; }
stripped() { "${tools}strip" -o "$dir/stripped" "$1" && stat -c %s "$dir/stripped"; }
sections() { "${tools}size" "$1" | awk 'NR == 2 {print $1 "/" $2 "/" $3}'; }
needed() {
  local libs
  libs=$(readelf -d "$1" | awk '/NEEDED/ {print $5}' | tr -d '[]' | xargs)
  echo "${libs:-none}"
}
exported() {
  local names
  names=$(readelf --dyn-syms -W "$1" | awk '$7 != "UND" && $4 == "FUNC" {print $8}' | xargs)
  echo "${names:-none}"
}

echo "== $build: $arch, $linkage"
row "" wdsd floor
row "stripped size (B)" "$(stripped "$wdsd")" "$(stripped "$floor")"
row "text/data/bss (B)" "$(sections "$wdsd")" "$(sections "$floor")"
row "needed" "$(needed "$wdsd")" "$(needed "$floor")"
row "exported" "$(exported "$wdsd")" "$(exported "$floor")"

if [ "$arch" != "$(uname -m)" ]; then
  echo "(not run: $arch binaries do not run on this $(uname -m) host)"
  exit 0
fi

# Pages of a freshly written binary are dirty in the page cache and would
# count as the process's private dirty memory.
sync "$wdsd" "$floor"

# start_call NAME [COUNTED]: a sandbox with the simulated modem, the daemon
# started in it and connected (dial 3), and the floor beside it; sets
# `daemon` and `floor_pid`. COUNTED preloads the heap-call counter into both,
# with the counts in $dir/NAME/daemon.count and $dir/NAME/floor.count.
start_call() {
  local name=$1 counted=${2:-} init status env_daemon=() env_floor=()
  mkdir -p "$dir/$name"
  if [ -n "$counted" ]; then
    # The sandbox's root is read-only; its exchange directory, /run/sandbox
    # inside, is where the daemon can write.
    env_daemon=("LD_PRELOAD=$(realpath "$counter")" WDS_MALLOC_COUNT_FILE=/run/sandbox/daemon.count)
    env_floor=("LD_PRELOAD=$(realpath "$counter")" "WDS_MALLOC_COUNT_FILE=$dir/$name/floor.count")
  fi
  "$sim_build/sim/wds-sandbox" --dir "$dir/$name/sandbox" --daemon "$wdsd" \
    --sim "$(realpath "$sim_build/sim/wds-sim")" --dial 3 --no-start >"$dir/$name/sandbox.out" 2>&1 &
  runner=$!
  for _ in $(seq 300); do [ -s "$dir/$name/sandbox/ready" ] && break; sleep 0.1; done
  [ -s "$dir/$name/sandbox/ready" ] || { cat "$dir/$name/sandbox.out"; exit 1; }
  init=$(cat "$dir/$name/sandbox/init.pid")
  # Started by hand rather than by the sandbox, so that it can take the
  # counter; the same bare environment otherwise. It detaches to the
  # sandbox's PID 1.
  nsenter -t "$init" -m -n -p -u -i -- env -i PATH=/run/bin:/usr/sbin:/usr/bin:/sbin:/bin "${env_daemon[@]}" \
    "$wdsd" >"$dir/$name/daemon.out" 2>&1 </dev/null
  status="/proc/$init/root/var/wan/rmnet0/status"
  for _ in $(seq 600); do [ "$(cat "$status" 2>/dev/null)" = 3 ] && break; sleep 0.1; done
  [ "$(cat "$status" 2>/dev/null)" = 3 ] || { echo "no call came up"; exit 1; }
  daemon=$(pgrep -P "$init" -x wdsd | head -1)
  env "${env_floor[@]}" "$floor" &
  floor_pid=$!
  sleep 1
}

# CPU time (ns) of a process, and how often it woke from a wait (its
# voluntary context switches).
cpu_ns() { awk '{print $1}' "/proc/$1/schedstat"; }
switches() { awk '/^voluntary_ctxt_switches/ {print $2}' "/proc/$1/status"; }
# Heap calls so far from a counts file: the malloc family, then free.
heap_calls() { od -An -t u8 -v -w8 "$1" | awk '{n[NR] = $1} END {print n[1] + n[2] + n[3] + n[5] + n[6] + n[7], n[4]}'; }
memory() { awk -v f="$2" '$1 == f ":" {print $2}' "/proc/$1/smaps_rollup"; }
heap_mapping() { awk '/\[heap\]/ {h = 1; next} h && /^Rss:/ {print $2; found = 1; exit} END {if (!found) print 0}' "/proc/$1/smaps"; }
per_hour() { echo $(( ($2 - $1) * 3600 / seconds )); }

# The figures without the counter, whose own pages would count.
start_call plain
load=$(cut -d' ' -f1 /proc/loadavg)
dc0=$(cpu_ns "$daemon") dw0=$(switches "$daemon") fc0=$(cpu_ns "$floor_pid") fw0=$(switches "$floor_pid")
sleep "$seconds"
dc1=$(cpu_ns "$daemon") dw1=$(switches "$daemon") fc1=$(cpu_ns "$floor_pid") fw1=$(switches "$floor_pid")
echo "== with a call up, ${seconds} s (load average $load at the start)"
row "" wdsd floor
for f in Private_Dirty Pss Rss; do
  row "$f (kB)" "$(memory "$daemon" $f)" "$(memory "$floor_pid" $f)"
done
row "heap mapping Rss (kB)" "$(heap_mapping "$daemon")" "$(heap_mapping "$floor_pid")"
row "CPU per hour (ms)" "$(( $(per_hour "$dc0" "$dc1") / 1000000 ))" "$(( $(per_hour "$fc0" "$fc1") / 1000000 ))"
row "wake-ups per minute" "$(( (dw1 - dw0) * 60 / seconds ))" "$(( (fw1 - fw0) * 60 / seconds ))"
stop_call

# Heap calls over a second window of the same length. A dynamic build gets
# the preloaded counter. A static one calls malloc inside the binary, where
# nothing can be interposed: gdb counts breakpoint hits on the allocator's
# entry points instead (it needs the unstripped binary; each hit stops the
# daemon for a moment, which the other figures above did not suffer).
heap_row() { row "heap calls per hour" "$@"; }
if [ "$linkage" = dynamic ] && [ -f "$counter" ]; then
  start_call counted yes
  read -r dm0 df0 < <(heap_calls "$dir/counted/sandbox/daemon.count")
  read -r fm0 ff0 < <(heap_calls "$dir/counted/floor.count")
  sleep "$seconds"
  read -r dm1 df1 < <(heap_calls "$dir/counted/sandbox/daemon.count")
  read -r fm1 ff1 < <(heap_calls "$dir/counted/floor.count")
  heap_row "$(per_hour "$dm0" "$dm1") malloc, $(per_hour "$df0" "$df1") free" \
    "$(per_hour "$fm0" "$fm1") malloc, $(per_hour "$ff0" "$ff1") free (preloaded counter)"
elif [ "$linkage" = dynamic ]; then
  heap_row "no counter in $build" ""
elif ! command -v gdb >/dev/null; then
  heap_row "not counted: static, and no gdb" ""
else
  # hits BINARY PID: malloc-family and free calls over the window.
  hits() {
    local breaks=()
    for f in $(nm --defined-only "$1" | awk '{print $3}' |
               grep -x -E 'malloc|calloc|realloc|aligned_alloc|posix_memalign|memalign|free'); do
      breaks+=(-ex "break $f" -ex "ignore \$bpnum 100000000")
    done
    if ((${#breaks[@]} == 0)); then echo "0 0"; return; fi
    timeout -s INT "$seconds" gdb -q -batch -p "$2" -ex 'set pagination off' "${breaks[@]}" \
      -ex continue -ex 'info breakpoints' -ex detach 2>/dev/null |
      awk '/^[0-9]+ +breakpoint/ {name = $NF} /already hit/ {if (name == "<free>") f += $4; else m += $4}
           END {print m + 0, f + 0}'
  }
  start_call counted
  hits "$floor" "$floor_pid" >"$dir/floor.hits" &
  floor_hits=$!
  read -r dm df < <(hits "$wdsd" "$daemon")
  wait "$floor_hits" || true  # gdb ends by timeout's interrupt
  read -r fm ff <"$dir/floor.hits"
  heap_row "$(per_hour 0 "$dm") malloc, $(per_hour 0 "$df") free" \
    "$(per_hour 0 "$fm") malloc, $(per_hour 0 "$ff") free (gdb breakpoints)"
fi
