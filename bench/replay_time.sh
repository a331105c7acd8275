#!/bin/bash
# SPDX-License-Identifier: ISC
# Replay time against the original run's time: for each vector log of the
# replay tests (tests/replay/logs), the seconds its end-to-end sandbox ran
# (logs/durations) beside the seconds wds-replay took, with the verdict.
#
#   bench/replay_time.sh BUILD_DIR [JOBS]         runs the replays itself (root)
#   bench/replay_time.sh --results DIR LOGDIR     from the replay tests' outputs
#                                                 (BUILD_DIR/tests/replay/results)
#
# A replay cannot be quicker than the daemon's own waits (its 4-second
# tick, the 12-second polls, an 8-minute start-network limit); it is
# quicker where the original waited for the outside, which the replay
# drives at once.
set -euo pipefail

if [ "${1:-}" = "--results" ]; then
  results=$2
  logs=$3
else
  build=$(realpath "${1:?usage: bench/replay_time.sh BUILD_DIR [JOBS] | --results DIR LOGDIR}")
  jobs=${2:-4}
  logs=$(dirname "$0")/../tests/replay/logs
  results=$(mktemp -d /tmp/wds-replay-bench.XXXXXX)
  trap 'rm -rf "$results"' EXIT
  ls "$logs"/*.log | grep -v second-instance |
    xargs -P "$jobs" -I{} sh -c '"$1/sim/wds-replay" --daemon "$1/wdsd" "$2" >"$3/$(basename "$2" .log).out" 2>&1 || true' \
      sh "$build" {} "$results"
fi

printf '%-92s %9s %9s %6s  %s\n' "log" "original" "replay" "ratio" "verdict"
total_original=0
total_replay=0
for out in "$results"/*.out; do
  name=$(basename "$out" .out)
  original=$(awk -v n="$name" '$1 == n { print $2 }' "$logs/durations" 2>/dev/null)
  replayed=$(sed -n 's/^replayed in \([0-9.]*\) s.*/\1/p' "$out")
  verdict=$(sed -n 's/^wds-replay: \(the two agree\|they part\).*/\1/p' "$out")
  [ -n "$replayed" ] || continue
  if [ -n "$original" ]; then
    ratio=$(awk -v a="$replayed" -v b="$original" 'BEGIN { printf "%.2f", a / b }')
    total_original=$(awk -v a="$total_original" -v b="$original" 'BEGIN { print a + b }')
    total_replay=$(awk -v a="$total_replay" -v b="$replayed" 'BEGIN { print a + b }')
  else
    original="-" ratio="-"
  fi
  printf '%-92s %9s %9s %6s  %s\n' "$name" "$original" "$replayed" "$ratio" "${verdict:-no verdict}"
done
printf '%-92s %9.1f %9.1f %6s\n' "all with an original time" "$total_original" "$total_replay" \
  "$(awk -v a="$total_replay" -v b="$total_original" 'BEGIN { if (b > 0) printf "%.2f", a / b }')"
echo "load: $(cut -d' ' -f1-3 /proc/loadavg)"
