#!/bin/bash
# Footprint of the daemon: binary size and dependencies, and, with a call up
# in the sandbox against the simulated modem, its resident memory and CPU time.
#
#   bench/footprint.sh [BUILD_DIR] [SECONDS_CONNECTED]
set -euo pipefail
build=${1:-build/default}
seconds=${2:-60}
wdsd=$build/wdsd

echo "== binary ($wdsd)"
stat -c 'file size      %s bytes' "$wdsd"
size "$wdsd" | awk 'NR==2 {printf "text %s  data %s  bss %s\n", $1, $2, $3}'
echo "needed         $(readelf -d "$wdsd" | awk '/NEEDED/ {print $5}' | tr -d '[]' | xargs)"
echo "exported       $(readelf --dyn-syms -W "$wdsd" | awk '$7 != "UND" && $4 == "FUNC" {print $8}' | xargs)"
if [ -x build/armhf/wdsd ]; then
  echo "armhf file     $(stat -c %s build/armhf/wdsd) bytes ($(arm-linux-gnueabihf-size build/armhf/wdsd | awk 'NR==2 {print "text " $1 ", data " $2 ", bss " $3}'))"
fi

echo "== running with a call up for ${seconds}s"
dir=$(mktemp -d)
"$build/sim/wds-sandbox" --dir "$dir" --daemon "$PWD/$wdsd" --sim "$PWD/$build/sim/wds-sim" --dial 3 \
  >"$dir.out" 2>&1 &
runner=$!
cleanup() { kill -9 $runner 2>/dev/null || true; wait $runner 2>/dev/null || true; rm -rf "$dir" "$dir.out"; }
trap cleanup EXIT
for _ in $(seq 300); do [ -s "$dir/init.pid" ] && break; sleep 0.1; done
init=$(cat "$dir/init.pid")
status="/proc/$init/root/var/wan/rmnet0/status"
for _ in $(seq 600); do [ "$(cat "$status" 2>/dev/null)" = 3 ] && break; sleep 0.1; done
daemon=$(pgrep -P "$init" -x wdsd | head -1)
read -r u0 s0 < <(awk '{print $14, $15}' "/proc/$daemon/stat")
sleep "$seconds"
read -r u1 s1 < <(awk '{print $14, $15}' "/proc/$daemon/stat")
hz=$(getconf CLK_TCK)
grep -E 'VmRSS|VmHWM|VmData|VmStk' "/proc/$daemon/status" | tr -s ' '
awk -v t=$(( (u1 - u0) + (s1 - s0) )) -v hz="$hz" -v s="$seconds" \
  'BEGIN {printf "cpu            %.0f ms over %d s (%.3f%%)\n", t * 1000 / hz, s, t * 100 / hz / s}'
echo "log            $(stat -c %s "/proc/$init/root/var/log/wds.log") bytes"
