#!/usr/bin/env bash
# Usage: scripts/stress.sh SECONDS
# Builds the release preset and runs every step of tests/long/steps.tsv, scaled to the time budget (the
# building not counted; below some minutes the fixed steps take longer than their share). Prints one
# table of what was tried and what failed; ends with status 1 on any finding. Logs, the table and
# the plot of the soak are left in build/release/stress/logs.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

if [[ ! ${1:-} =~ ^[1-9][0-9]*$ ]]; then
  sed -n '2,6s/^# //p' "${BASH_SOURCE[0]}" >&2
  exit 2
fi
scripts/build.sh release
exec python3 tests/long/run_steps.py "$1" build/release
