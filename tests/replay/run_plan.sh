#!/bin/sh
# SPDX-License-Identifier: ISC
# One plan vector through wds-replay --plan: the line "=== log NAME" names a
# vector log of this folder's logs/, the lines after "=== plan" are exactly
# what the tool prints for it (its actions and the modem's script).
# Usage: run_plan.sh VECTOR COMMAND...   (COMMAND runs wds-replay)
set -eu
vector=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
log=$(sed -n 's/^=== log //p' "$vector")
sed -n '/^=== plan$/,$p' "$vector" | sed 1d >"$work/want"
"$@" --plan "$(dirname "$vector")/logs/$log" >"$work/got"
diff -u "$work/want" "$work/got"
