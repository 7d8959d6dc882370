#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-2-Clause
# Usage: tests/fuzz/run.sh SECONDS [WORKERS]
# Runs every fuzzer within about SECONDS, WORKERS processes of it (2) at a time, the session as long
# as the others together; prints "NAME EXECUTIONS FINDINGS" for each and for all. Ends with 1 if
# anything was found; inputs and logs are then in build/fuzz/findings. What covered something new
# stays in build/fuzz/corpus and is where the next run goes on.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
seconds=${1:?usage: tests/fuzz/run.sh SECONDS [WORKERS]}

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz >&2
rm -rf build/fuzz/findings
tried=0 found=0
for weight in changes:1 copies:1 rectangles:1 session:3; do
  name=${weight%:*}
  folder=build/fuzz/findings/$name
  mkdir -p "$folder" "build/fuzz/corpus/$name"
  "build/fuzz/fuzz/fuzz_$name" "build/fuzz/corpus/$name" "tests/fuzz/corpus/$name" -max_len=2000 \
    -max_total_time=$((1 + seconds * ${weight#*:} / 6)) -fork="${2:-2}" -ignore_crashes=1 \
    -timeout=20 -rss_limit_mb=4096 -artifact_prefix="$folder/" >"$folder/log" 2>&1 || true
  executions=$(sed -n 's/^#\([0-9]*\): .*/\1/p' "$folder/log" | tail -1)
  findings=$(find "$folder" -type f ! -name log | wc -l)
  printf '%-16s %12d %4d\n' "$name" "${executions:-0}" "$findings"
  tried=$((tried + executions)) found=$((found + findings))
done
printf '%-16s %12d %4d\n' all "$tried" "$found"
[[ $tried -gt 0 && $found -eq 0 ]]
