#!/bin/sh
# SPDX-License-Identifier: ISC
# The outage rehearsal's figures from a fleet of three whose records are
# known to the microsecond (outage/a, b, c): a gateway back at once when
# its retry meets the recovery (b: a start at the very microsecond of the
# recovery was not refused), one back later (a), one whose daemon stopped
# retrying (c, never back); records after the end mark ignored (a). The
# expected figures were worked out by hand: nearest-rank percentiles, a 1-s
# peak window that leaves out a start exactly 1 s after its first, rows of
# whole seconds from the first drop.
# Then two fleets with nothing to measure must fail.
# Usage: outage_figures_test.sh bench/outage_figures.awk
set -u
figures=$1
here=$(dirname "$0")/outage
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
status=0

check() {  # check WANT GOT
  diff -u "$1" "$2" || status=1
}

awk -v csv="$work/outage.csv" -v per_gateway="$work/gateways.csv" -v plotvars="$work/plot.vars" \
  -f "$figures" "$here"/a/device.log "$here"/a/bus.log "$here"/b/device.log "$here"/b/bus.log \
  "$here"/c/device.log "$here"/c/bus.log >"$work/figures.txt" || { echo "figures failed"; status=1; }
check "$here/expected_figures.txt" "$work/figures.txt"
check "$here/expected_outage.csv" "$work/outage.csv"
check "$here/expected_gateways.csv" "$work/gateways.csv"
check "$here/expected_plot.vars" "$work/plot.vars"

# fails WHY DEVICE_LOG_LINES: one gateway with these records must give no figures.
fails() {
  mkdir -p "$work/none/g"
  printf '%s\n' "$2" >"$work/none/g/device.log"
  : >"$work/none/g/bus.log"
  if awk -f "$figures" "$work/none/g/device.log" "$work/none/g/bus.log" >"$work/none.out" 2>&1; then
    echo "figures given for $1:"
    cat "$work/none.out"
    status=1
  elif ! grep -q "nothing to measure" "$work/none.out"; then
    echo "no reason given for $1:"
    cat "$work/none.out"
    status=1
  fi
}
fails "a fleet never dropped" "1 1000 ev wds request start tx=1"
fails "an outage without a start request" "1 1000 ev ctl on start fail=14
2 2000 ev ctl drop reason=4
3 3000 ev wds request stop tx=2
4 4000 ev ctl on start clear"
exit $status
