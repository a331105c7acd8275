#!/bin/sh
# SPDX-License-Identifier: ISC
# Each manual page renders without a warning, on paper and on a terminal.
# Usage: render.sh PAGE...
set -u
status=0
for page in "$@"; do
  for device in ps utf8; do
    out=$(groff -man -ww -z -T "$device" "$page" 2>&1) || status=1
    [ -z "$out" ] || { printf '%s (%s):\n%s\n' "$page" "$device" "$out"; status=1; }
  done
done
exit $status
