#!/bin/sh
# SPDX-License-Identifier: ISC
# One vector log through wds-replay. Its output is shown and kept as
# RESULTS/<log's name>.out for bench/replay_time.sh; the test passes when
# the replay agrees with the log (exit status 0).
#   run.sh LOG RESULTS WDS_REPLAY WDSD
set -u
log=$1 results=$2 replay=$3 daemon=$4
mkdir -p "$results"
out=$results/$(basename "$log" .log).out
"$replay" --daemon "$daemon" "$log" >"$out" 2>&1
status=$?
cat "$out"
exit $status
