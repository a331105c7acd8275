#!/bin/sh
# SPDX-License-Identifier: ISC
# One diagnosis vector through wds-decode --diagnose: the line "=== log NAME"
# names a vector log of tests/replay/logs, the lines after "=== diagnosis"
# are exactly what the tool prints for it. Every README row the diagnosis
# points at must be a row of the README's table, by its first column.
# Usage: run_diagnosis.sh VECTOR LOGDIR README COMMAND...   (COMMAND runs wds-decode)
set -eu
vector=$1 logs=$2 readme=$3
shift 3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
log=$(sed -n 's/^=== log //p' "$vector")
sed -n '/^=== diagnosis$/,$p' "$vector" | sed 1d >"$work/want"
"$@" --diagnose "$logs/$log" >"$work/got"
diff -u "$work/want" "$work/got"
sed -n 's/.*row "\(.*\)"$/\1/p' "$work/got" | while IFS= read -r row; do
  grep -qF "| $row |" "$readme" || { echo "no row \"$row\" in $readme"; exit 1; }
done
