#!/bin/bash
# SPDX-License-Identifier: ISC
# Takes the vector logs of the replay and diagnosis tests again, into
# tests/replay/logs/:
#   - every end-to-end scenario's log as its sandbox left it (the harness
#     keeps them when WDS_E2E_LOGS is set), named <suite>.<test>.<n>.log,
#     and the seconds each sandbox ran, in durations;
#   - second-instance.log: a second daemon started by hand in a sandbox with
#     a call up, as the operating notes describe it (no scenario has one);
#   - client-id.log: a modem that refuses every start with error 7
#     (Invalid Client ID), in a sandbox by hand;
#   - cut-at-bound.log: StuckCall's log as a restart at the 64 KiB bound
#     may leave it, from inside a dump, with a bring-up left after the cut;
#   - tty-gone.log: ConnectedWithoutHotplug's log as it was before the
#     signal 38 that ended it, with the tty gone under a connected daemon.
# The diagnosis vectors (tests/decode/*.diag) name these logs; after a
# retake, compare what they print (ctest -R decode.diagnose) and update them.
#
#   tests/replay/retake.sh [BUILD_DIR]      (root; about ten minutes)
set -euo pipefail
cd "$(dirname "$0")/../.."
build=$(realpath "${1:-build/default}")
out=tests/replay/logs
work=$(mktemp -d /tmp/wds-retake.XXXXXX)
runner=""
cleanup() {
  if [ -n "$runner" ] && kill -0 "$runner" 2>/dev/null; then
    kill "$runner"
    wait "$runner" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

echo "== the end-to-end scenarios, against the build's own daemon"
mkdir "$work/logs"
WDS_E2E_LOGS=$work/logs ctest --test-dir "$build" -L e2e -LE replay -E '/musl$' -j 8 --timeout 900 --output-on-failure

echo "== a second daemon instance, by hand in a sandbox"
wait_for() {  # wait_for SECONDS COMMAND...
  local limit=$1
  shift
  for _ in $(seq $((limit * 10))); do "$@" && return 0; sleep 0.1; done
  echo "retake: gave up waiting for: $*" >&2
  exit 1
}
"$build/sim/wds-sandbox" --dir "$work/sb" --daemon "$build/wdsd" --dial '3\n' --no-hotplug >"$work/sb.out" 2>&1 &
runner=$!
wait_for 30 test -e "$work/sb/ready"
root=/proc/$(cat "$work/sb/init.pid")/root
connected() { grep -qsx 3 "$root/var/wan/rmnet0/status"; }
wait_for 60 connected
# Started from inside, it detaches and shares the tty, the pid file and the log.
nsenter -t "$(cat "$work/sb/init.pid")" -m -n -p -u -i -- "$build/wdsd" >/dev/null 2>&1
sleep 40  # the second one's bring-up and call, and both polling for a while
"$build/sim/wds-simctl" "$work/sb" init shutdown >/dev/null
wait "$runner" || true
runner=""
cp "$work/sb/final/log/wds.log" "$work/logs/second-instance.log"

echo "== starts refused with Invalid Client ID, by hand in a sandbox"
"$build/sim/wds-sandbox" --dir "$work/sb7" --daemon "$build/wdsd" --dial '3\n' --sim-do 'on start fail=7' \
  >"$work/sb7.out" 2>&1 &
runner=$!
wait_for 30 test -e "$work/sb7/ready"
root=/proc/$(cat "$work/sb7/init.pid")/root
refused_thrice() { [ "$(grep -cs 'Invalid Client ID' "$root/var/log/wds.log")" -ge 3 ]; }
wait_for 60 refused_thrice
"$build/sim/wds-simctl" "$work/sb7" init shutdown >/dev/null
wait "$runner" || true
runner=""
cp "$work/sb7/final/log/wds.log" "$work/logs/client-id.log"

echo "== the cut logs"
stuck=$(ls "$work"/logs/StuckCall.*.1.log)
first_stop=$(grep -n '^message(0x2100)' "$stuck" | head -1 | cut -d: -f1)
tail -n +$((first_stop + 1)) "$stuck" >"$work/logs/cut-at-bound.log"
bare=$(ls "$work"/logs/*ConnectedWithoutHotplug.1.log)
second_init=$(grep -n 'wds state : init' "$bare" | sed -n 2p | cut -d: -f1)
head -n $((second_init - 1)) "$bare" >"$work/logs/tty-gone.log"

rm -f "$out"/*.log "$out"/durations
cp "$work"/logs/*.log "$work/logs/durations" "$out/"
ls "$out"
