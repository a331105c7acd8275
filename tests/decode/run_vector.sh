#!/bin/sh
# SPDX-License-Identifier: ISC
# One vector file through wds-decode, given the file and on standard input:
# the lines between "=== log" and "=== decoded" are the log, the lines after
# "=== decoded" exactly what the tool prints for it.
# Usage: run_vector.sh VECTOR COMMAND...   (COMMAND runs wds-decode)
set -eu
vector=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
sed -n '/^=== log$/,/^=== decoded$/p' "$vector" | sed '1d;$d' >"$work/log"
sed -n '/^=== decoded$/,$p' "$vector" | sed 1d >"$work/want"
"$@" "$work/log" >"$work/got"
diff -u "$work/want" "$work/got"
"$@" <"$work/log" >"$work/got"
diff -u "$work/want" "$work/got"
