#!/bin/sh
# SPDX-License-Identifier: ISC
# One vector log through wds-replay. Its output is shown, with the time the
# replay took beside the time the scenario's sandbox ran (the benchmark's
# figures, which bench/replay_time.sh --results RESULTS sets in a table),
# and kept as RESULTS/<log's name>.out; the test passes when the replay
# agrees with the log (exit status 0).
#   run.sh LOG RESULTS WDS_REPLAY WDSD
set -u
log=$1 results=$2 replay=$3 daemon=$4
name=$(basename "$log" .log)
mkdir -p "$results"
out=$results/$name.out
"$replay" --daemon "$daemon" "$log" >"$out" 2>&1
status=$?
cat "$out"
replayed=$(sed -n 's/^replayed in \([0-9.]*\) s.*/\1/p' "$out")
original=$(awk -v n="$name" '$1 == n { print $2 }' "$(dirname "$log")/durations")
echo "replay time: ${replayed:-?} s; the scenario's sandbox ran ${original:-(no record)} s; load $(cut -d' ' -f1-3 /proc/loadavg)"
exit $status
