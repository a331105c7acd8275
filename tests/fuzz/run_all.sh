#!/bin/bash
# SPDX-License-Identifier: ISC
# Runs every fuzz target of a build for a bounded time on its seed corpus.
# Usage: tests/fuzz/run_all.sh BUILD_DIR SECONDS_PER_TARGET
set -euo pipefail
build=${1:?build dir}
seconds=${2:-30}
here=$(cd "$(dirname "$0")" && pwd)
status=0
for exe in "$build"/tests/fuzz/fuzz_*; do
  [ -x "$exe" ] || continue
  name=$(basename "$exe"); name=${name#fuzz_}
  work=$(mktemp -d)
  [ -d "$here/corpus/$name" ] && cp -r "$here/corpus/$name/." "$work/"
  echo "== fuzz $name (${seconds}s)"
  if ! "$exe" -max_total_time="$seconds" -print_final_stats=1 -artifact_prefix="$work/" "$work" \
      2>"$work.log"; then
    echo "FINDING in $name:"; tail -40 "$work.log"; status=1
  else
    grep -E 'stat::number_of_executed_units|stat::new_units_added' "$work.log" || true
  fi
  rm -rf "$work" "$work.log"
done
exit $status
