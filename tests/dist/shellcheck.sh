#!/bin/sh
# SPDX-License-Identifier: ISC
# Every shell script shipped in dist/ (every file there
# whose first line starts a POSIX shell) passes shellcheck, as the shell
# named there.
# Usage: shellcheck.sh DIST_DIR
set -u
scripts=$(grep -rlE '^#!/bin/sh( |$)' "$1" | sort)
[ -n "$scripts" ] || { echo "no shell script in $1"; exit 1; }
echo "$scripts"
# shellcheck disable=SC2086 # one word per script
shellcheck --external-sources $scripts
