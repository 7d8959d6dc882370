#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-2-Clause
# Usage: benchmarks/live.sh [SECONDS [ROUNDS]]
# Recording a live desktop of 1920x1080 at 25 pictures a second, scene by scene, by ffmpeg's x11grab
# and by qora-record on the same screen: processor time of all processes, the X server's growth
# included, bytes, and in the typing scene the time from a change to its access unit.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
source scripts/lib/desktop.sh
source benchmarks/scenes.sh

film() {
  start_screen 1920 1080
  sleep 1
  "windows_of_$1"
  sleep 1
  set -m
  while :; do "act_$1"; done </dev/null >/dev/null 2>&1 &
  set +m
  sleep 1
  python3 benchmarks/live.py "$1" "$(jobs -p | head -1)" "${@:2}"
  end_jobs
}

for scene in ${SCENES:-idle typing reading scrolling flooding dragging video}; do
  film "$scene" "${1:-10}" "${2:-3}"
done
