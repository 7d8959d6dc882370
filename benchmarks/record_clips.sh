#!/usr/bin/env bash
# Usage: benchmarks/record_clips.sh FOLDER
# Films three clips of a virtual desktop into FOLDER: typing.y4m, scrolling.y4m, dragging.y4m, of
# 150 pictures of 1920x1080 each. A clip that is there already is left as it is.
set -euo pipefail
mkdir -p "$1"
folder=$(realpath -- "$1")
cd "$(dirname "${BASH_SOURCE[0]}")/.."
source scripts/lib/desktop.sh

readonly width=1920 height=1080 rate=25 frames=150
readonly terminal=(xterm -fa 'DejaVu Sans Mono' -fs 10 -bg '#20242c' -fg '#d8dee9' +sb)

# What the windows show: sources, so that every run films the same kind of text.
show_sources() {
  cat qora/service/channel.cc qora/service/frame.cc
  sleep infinity
}
scroll_sources() {
  while true; do
    pr --merge --omit-header --page-width=230 <(cat qora/service/*.cc) <(cat qora/client/*.cc) |
      while IFS= read -r line; do
        printf '%s\n' "$line"
        sleep 0.04
      done
  done
}
export -f show_sources scroll_sources

windows_of_typing() {
  start_window Reader "${terminal[@]}" -class Reader -geometry 110x60+960+20 \
    -e bash -c show_sources
  start_window Editor "${terminal[@]}" -class Editor -geometry 110x60+10+20 \
    -e cat
  xdotool search --onlyvisible --class Editor windowfocus --sync
}
# Six letters a second: somebody who types well. xdotool waits for half of its delay.
act_typing() {
  xdotool type --delay 330 "$(head -c 400 docs/architecture.md)"
}

windows_of_scrolling() {
  start_window Reader "${terminal[@]}" -class Reader -geometry 236x64+0+0 \
    -e bash -c scroll_sources
  sleep 3 # until the window is full and every line scrolls
}
act_scrolling() {
  sleep infinity
}

windows_of_dragging() {
  start_window Reader "${terminal[@]}" -class Reader -geometry 110x60+960+20 \
    -e bash -c show_sources
  start_window XClock xclock -geometry 260x260+80+700
  start_window Carried "${terminal[@]}" -class Carried -geometry 80x30+200+60 \
    -e bash -c show_sources
}
# Takes the window by its title bar and carries it in a loop over the others, a step a picture.
act_dragging() {
  local path
  mapfile -t path < <(awk 'BEGIN {
    x = 500; y = 68
    printf "mousemove\n%d\n%d\nsleep\n0.3\nmousedown\n1\n", x, y
    for (step = 0; step <= 400; ++step) {
      angle = 2 * 3.14159265 * step / 160
      printf "mousemove\n%d\n%d\nsleep\n0.037\n",
        x + 420 * (1 - cos(angle)), y + 320 * sin(angle / 2) ^ 2
    }
    printf "mouseup\n1\n"
  }')
  xdotool "${path[@]}"
}

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
