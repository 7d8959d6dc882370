#!/usr/bin/env bash
# Usage: scripts/test.sh [PRESET]
# Installs what is needed, builds (see build.sh) and runs every fast test.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

preset=${1:-release}
scripts/build.sh "$preset" tests
ctest --preset "$preset" --label-regex fast --parallel 2 --no-tests=error
