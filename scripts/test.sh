#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-2-Clause
# Usage: scripts/test.sh [--live] [--browser] [PRESET]
# Installs what is needed, builds (see build.sh) and runs every fast test; with --live also those that
# record a virtual screen, with --browser those that show one in a real browser.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

labels=fast
groups=(tests)
while [[ ${1:-} == --* ]]; do
  [[ $1 == --live || $1 == --browser ]] || { sed -n 3p "${BASH_SOURCE[0]}" >&2; exit 2; }
  labels+="|${1#--}"
  groups+=("${1#--}")
  shift
done
preset=${1:-release}
scripts/build.sh "$preset" "${groups[@]}"
ctest --preset "$preset" --label-regex "^($labels)$" --parallel 2 --no-tests=error
