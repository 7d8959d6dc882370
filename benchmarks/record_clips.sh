#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-2-Clause
# Usage: benchmarks/record_clips.sh FOLDER
# Films three clips of a virtual desktop into FOLDER: typing.y4m, scrolling.y4m, dragging.y4m, of
# 150 pictures of 1920x1080 each. A clip that is there already is left as it is.
set -euo pipefail
mkdir -p "$1"
folder=$(realpath -- "$1")
cd "$(dirname "${BASH_SOURCE[0]}")/.."
source scripts/lib/desktop.sh
source benchmarks/scenes.sh

readonly width=1920 height=1080 rate=25 frames=150

film() {
  local clip=$folder/$1.y4m
  [[ ! -s $clip ]] || return 0
  echo "filming $1" >&2
  start_screen "$width" "$height"
  sleep 1
  "windows_of_$1"
  sleep 1
  start "act_$1"
  sleep 0.5
  # Pictures as they come: a machine that is late must not fill up with copies of the last one.
  ffmpeg -nostdin -y -loglevel error -f x11grab -draw_mouse 1 -framerate "$rate" \
    -video_size "${width}x${height}" -i "$DISPLAY" -frames:v "$frames" -fps_mode passthrough \
    -pix_fmt yuv420p -f yuv4mpegpipe "$clip.part"
  mv "$clip.part" "$clip"
  end_jobs
}

for clip in typing scrolling dragging; do
  film "$clip"
done
