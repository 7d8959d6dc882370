#!/usr/bin/env bash
# Usage: scripts/demo.sh [FILE.y4m]
# Encodes ten seconds of a real desktop, or the given clip, through the service.
#   demo/desktop.264  the coded stream          demo/desktop.mp4  the same for a player
#   demo/desktop.png  one decoded frame         demo/stats.csv    a line for each frame
# The desktop is a virtual X screen with programs of its own. Nothing is left running, also after
# Ctrl-C; the raw capture (350 MB) lies in the temporary directory and is deleted.
set -euo pipefail
user_clip=${1:+$(realpath -- "$1")}
cd "$(dirname "${BASH_SOURCE[0]}")/.."
source scripts/lib/desktop.sh

readonly width=1280 height=720 rate=25 frames=250
readonly encoder=build/release/qora-encode
readonly calculator_x=820 calculator_y=64
readonly terminal=(xterm -fa 'DejaVu Sans Mono' -fs 9 -bg '#20242c' -fg '#d8dee9' +sb)

scroll_sources() {
  for source in docs/protocol.md qora/service/*.cc; do
    while IFS= read -r line; do
      printf '%s\n' "$line"
      sleep 0.1
    done <"$source"
  done
}

start_programs() {
  export -f scroll_sources
  start_window Reader "${terminal[@]}" -class Reader -T 'reading the sources' \
    -geometry 101x40+20+24 -e bash -c scroll_sources
  start_window Monitor "${terminal[@]}" -class Monitor -T top -geometry 82x16+610+440 \
    -e top -d 1
  start_window XClock xclock -update 1 -geometry 190x190+1070+24
  start_window XEyes xeyes -geometry 190x120+1070+266
  start_window XCalc xcalc -geometry "230x310+$calculator_x+$calculator_y"
  sleep 1
}

# Takes the calculator by its title bar and carries it round in a loop, about a step for each frame.
drag_calculator() {
  local path
  mapfile -t path < <(awk -v x=$((calculator_x + 115)) -v y=$((calculator_y + 8)) 'BEGIN {
    printf "mousemove\n%d\n%d\nsleep\n1.5\nmousedown\n1\n", x, y
    steps = 160
    for (step = 0; step <= steps; ++step) {
      angle = 2 * 3.14159265 * step / steps
      printf "mousemove\n%d\n%d\nsleep\n0.035\n",
        x - 220 * (1 - cos(angle)), y + 150 * sin(angle / 2) ^ 2
    }
    printf "mouseup\n1\n"
  }')
  xdotool "${path[@]}"
}

# Runs the pipeline in the background, so that a signal meets the shell in `wait`.
capture_and_encode() {
  set -m
  ffmpeg -nostdin -loglevel error -f x11grab -framerate "$rate" -video_size "${width}x${height}" \
    -i "$DISPLAY" -frames:v "$frames" -pix_fmt yuv420p -f yuv4mpegpipe - |
    tee "$clip" | "$encoder" - -o demo/desktop.264 --stats demo/stats.csv &
  set +m
  wait $! || fail "capturing or encoding failed"
}

encode_clip() {
  set -m
  "$encoder" "$clip" -o demo/desktop.264 --stats demo/stats.csv &
  set +m
  wait $! || fail "encoding $clip failed"
}

# Frames are matched by their number: the two files may tell of time differently.
quality() {
  local count='settb=1/25,setpts=N'
  ffmpeg -nostdin -hide_banner -i demo/desktop.264 -i "$clip" \
    -lavfi "[0:v]${count}[coded];[1:v]${count}[raw];[coded][raw]psnr" -f null - 2>&1 |
    sed -n 's/.*PSNR.* average:\([^ ]*\).*/\1/p'
}

print_table() {
  local size macroblocks psnr
  size=$(stat -c %s demo/desktop.264)
  macroblocks=$((((clip_width + 15) / 16) * ((clip_height + 15) / 16)))
  psnr=$(quality)
  awk -F , -v size="$size" -v cells="$macroblocks" -v psnr="$psnr" -v rate="$clip_rate" '
    NR == 1 { for (i = 1; i <= NF; ++i) column[$i] = i; next }
    { encode += $column["encode_ms"]; changed += $column["changed_macroblocks"]; ++frames }
    END {
      split(rate, fps, "/")
      seconds = frames / (fps[1] / (fps[2] ? fps[2] : 1))
      printf "\n%-26s %10d\n", "frames", frames
      printf "%-26s %10.0f kB, %.0f kbit/s\n", "size", size / 1000, size * 8 / 1000 / seconds
      printf "%-26s %10.2f ms\n", "mean time to encode", encode / frames
      printf "%-26s %10.1f %%\n", "changed macroblocks", 100 * changed / frames / cells
      printf "%-26s %10s dB\n", "PSNR against the capture", psnr
    }' demo/stats.csv
}

[[ -z $user_clip || -r $user_clip ]] || fail "cannot read $user_clip"
scripts/build.sh release demo
mkdir -p demo

if [[ -n $user_clip ]]; then
  clip=$user_clip
  encode_clip
else
  clip=$work/capture.y4m
  start_screen "$width" "$height"
  start_programs
  start drag_calculator
  capture_and_encode
fi

IFS=, read -r clip_width clip_height clip_rate < <(
  ffprobe -v error -select_streams v:0 -show_entries stream=width,height,r_frame_rate \
    -of csv=p=0 "$clip"
)
ffmpeg -nostdin -y -loglevel error -framerate "$clip_rate" -i demo/desktop.264 -c copy \
  demo/desktop.mp4
coded_frames=$(($(wc -l <demo/stats.csv) - 1))
ffmpeg -nostdin -y -loglevel error -i demo/desktop.mp4 \
  -vf "select=eq(n\,$((coded_frames / 2)))" -frames:v 1 demo/desktop.png
print_table
echo
ls demo/desktop.264 demo/desktop.mp4 demo/desktop.png demo/stats.csv
