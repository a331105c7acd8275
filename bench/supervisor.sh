#!/bin/bash
# SPDX-License-Identifier: ISC
# wdsd-supervise at work: its stripped size (beside the musl build's, when
# there is one), and, running a connected daemon in the sandbox for a while
# with a start-over (signal 38) every 10 s, the heap calls it makes once
# running (a preloaded counter, in the supervisor alone), the descriptors it
# and the daemon hold, its memory and CPU time, and how long each of the
# daemon's lines takes to reach syslog: from the simulator's record of the
# tty's open to the syslog stand-in's record of "===>QMITTY can be opened".
#
#   bench/supervisor.sh [BUILD_DIR] [SECONDS]
set -euo pipefail
build=$(realpath "${1:-build/default}")
seconds=${2:-60}
sup=$build/supervise/wdsd-supervise
counter=$build/libwds-malloc-count.so
for f in "$sup" "$counter" "$build/wdsd" "$build/sim/wds-sandbox"; do
  [ -e "$f" ] || { echo "no $f: build $build first" >&2; exit 2; }
done

dir=$(mktemp -d /tmp/wds-bench-sup.XXXXXX)
runner="" nsenter_pid=""
stop() {
  [ -z "$nsenter_pid" ] || kill "$nsenter_pid" 2>/dev/null || true
  if [ -n "$runner" ]; then
    kill -9 "$runner" 2>/dev/null || true
    wait "$runner" 2>/dev/null || true
  fi
  rm -rf "$dir"
}
trap stop EXIT

row() { printf '%-34s %s\n' "$1" "$2"; }
stripped() { strip -o "$dir/stripped" "$1" && stat -c %s "$dir/stripped"; }
# The counter file: seven 64-bit counts; their sum.
heap_calls() { od -An -t u8 -v "$1" | tr -s ' ' '\n' | awk '{s += $1} END {print s + 0}'; }

echo "== wdsd-supervise, $(uptime | sed 's/.*load/load/')"
row "stripped size (B)" "$(stripped "$sup")"
musl=$(dirname "$build")/musl/supervise/wdsd-supervise
[ ! -e "$musl" ] || row "stripped size, static musl (B)" "$(stripped "$musl")"
row "needed" "$(readelf -d "$sup" | awk '/NEEDED/ {print $5}' | tr -d '[]' | xargs)"

"$build/sim/wds-sandbox" --dir "$dir/sb" --no-start --dial 3 >"$dir/sandbox.out" 2>&1 &
runner=$!
for _ in $(seq 200); do [ -e "$dir/sb/ready" ] && break; sleep 0.1; done
init=$(cat "$dir/sb/init.pid")
root=/proc/$init/root
# The daemon, without the counter: it would count into the same file.
mkdir "$dir/sb/bench"
printf '#!/bin/sh\nexec env -u LD_PRELOAD -u WDS_MALLOC_COUNT_FILE %s\n' "$build/wdsd" >"$dir/sb/bench/wdsd"
chmod 755 "$dir/sb/bench/wdsd"
nsenter -t "$init" -m -n -p -u -i -- env -i PATH=/run/bin:/usr/sbin:/usr/bin:/sbin:/bin \
  LD_PRELOAD="$counter" WDS_MALLOC_COUNT_FILE=/run/sandbox/sup.count \
  "$sup" --daemon /run/sandbox/bench/wdsd >"$dir/sup.out" 2>&1 &
nsenter_pid=$!
for _ in $(seq 600); do [ "$(cat "$root/var/wan/rmnet0/status" 2>/dev/null)" = 3 ] && break; sleep 0.1; done
[ "$(cat "$root/var/wan/rmnet0/status")" = 3 ] || { echo "no call came up" >&2; exit 1; }
sup_pid=$(pgrep -P "$nsenter_pid")
daemon_pid=$(nsenter -t "$init" -m -p -- sh -c 'cat /var/wan/rmnet0/pid')

calls0=$(heap_calls "$dir/sb/sup.count")
cpu0=$(awk '{print $14 + $15}' "/proc/$sup_pid/stat")
for ((i = 0; i < seconds / 10; ++i)); do
  sleep 10
  nsenter -t "$init" -m -p -- sh -c "kill -38 $daemon_pid" || true
done
sleep 10  # the last start-over's lines
calls1=$(heap_calls "$dir/sb/sup.count")
cpu1=$(awk '{print $14 + $15}' "/proc/$sup_pid/stat")

row "heap calls up to the call" "$calls0"
row "heap calls in ${seconds} s + 10 s running" "$((calls1 - calls0)) ($((seconds / 10)) start-overs)"
row "CPU time in that window (ticks)" "$((cpu1 - cpu0))"
# Descriptors as N=what, sockets and pipes without their inode.
fds() { for f in "/proc/$1/fd/"*; do echo "${f##*/}=$(readlink "$f")"; done | sort -n | sed 's/:\[[0-9]*\]//' | xargs; }
row "descriptors, supervisor" "$(ls "/proc/$sup_pid/fd" | wc -l): $(fds "$sup_pid")"
host_daemon=$(grep -l "^NSpid:.*[[:space:]]$daemon_pid\$" /proc/[0-9]*/status 2>/dev/null | cut -d/ -f3 | head -1 || true)
[ -z "$host_daemon" ] || row "descriptors, daemon" "$(ls "/proc/$host_daemon/fd" | wc -l): $(fds "$host_daemon")"
row "RSS / Pss / private dirty (kB)" "$(awk '/^Rss|^Pss:|^Private_Dirty/ {printf "%s ", $2}' "/proc/$sup_pid/smaps_rollup")"
# Every tty open of the simulator, paired with the next "can be opened" record at syslog.
awk '
  FNR == 1 { file++ }
  file == 1 && $3 == "ev" && $4 == "open" { opens[++n] = $2 }
  file == 2 && /===>QMITTY can be opened/ { lines[++m] = $1 }
  END {
    for (i = 1; i <= n && i <= m; ++i) { d = (lines[i] - opens[i]) / 1000; s += d; if (d > max) max = d }
    if (n && m) printf "%-34s %d samples, mean %.2f ms, max %.2f ms\n", "tty open to its line at syslog", (n < m ? n : m), s / (n < m ? n : m), max
  }' "$dir/sb/device.log" "$dir/sb/syslog.log"
echo "uptime: $(uptime)"
