#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-2-Clause
# Usage: scripts/stress.sh SECONDS
# Builds the release preset and runs what takes minutes, within about so many seconds: for half of
# them the tests labelled long and soak, then the fuzzers. Ends with another status than 0 on any
# finding. Building, and forms of a fixed length when the time is short, come on top.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

if [[ ! ${1:-} =~ ^[1-9][0-9]*$ ]]; then
  sed -n '3,6s/^# //p' "${BASH_SOURCE[0]}" >&2
  exit 2
fi
scripts/build.sh release tests fuzz root
status=0
QORA_SECONDS=$(($1 / 2)) ctest --preset release --label-regex 'long|soak' --parallel 2 \
  --no-tests=error || status=1
tests/fuzz/run.sh $(($1 / 2)) 2 || status=1
exit $status
