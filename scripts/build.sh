#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-2-Clause
# Usage: scripts/build.sh [PRESET [GROUP...]]
# Builds everything into build/PRESET (the presets of CMakePresets.json; release when none is given),
# after installing what that needs and the further groups of packages (setup.sh).
# QORA_SKIP_SETUP=1 leaves the machine's packages alone.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

preset=${1:-release}
if [[ ${QORA_SKIP_SETUP:-0} != 1 ]]; then
  scripts/setup.sh build tools "${@:2}"
fi
cmake --preset "$preset"
cmake --build --preset "$preset"
