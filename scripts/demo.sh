#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-2-Clause
# Usage: scripts/demo.sh                  records a desktop, with moves and without
#        scripts/demo.sh FILE.y4m         encodes that clip, with moves and without
#        scripts/demo.sh --serve [OPTION...]
#                                         shows a desktop in browsers (options of qora-serve) until Ctrl-C
#        scripts/demo.sh --help
# The desktop is a virtual X screen with real programs, on which somebody types, scrolls and drags. Prints
# a table and leaves in demo/:
#   desktop.qora  the recording with moves, for build/release/qora-view
#   desktop.mp4   the one without, for any player
#   compare.png   the screen, what is decoded with moves, and eight times the difference
#   bytes.png     bytes a frame over time
# Nothing is left running, and without results of its own the last ones stay, also after Ctrl-C.
set -euo pipefail

case ${1:-} in
  --help | -h)
    sed -n '3,/^set/{/^set/d;s/^# \{0,1\}//;p}' "${BASH_SOURCE[0]}"
    exit 0
    ;;
  --serve) mode=serve serve_options=("${@:2}") ;;
  -*)
    echo "demo.sh: no option '$1' (see --help)" >&2
    exit 2
    ;;
  '') mode=record ;;
  *) mode=encode clip=$(realpath -- "$1") ;;
esac
cd "$(dirname "${BASH_SOURCE[0]}")/.."
source scripts/lib/desktop.sh

readonly width=1280 height=720 programs=build/release
readonly calculator_x=820 calculator_y=64
readonly terminal=(xterm -fa 'DejaVu Sans Mono' -fs 9 -bg '#20242c' -fg '#d8dee9' +sb)
readonly results=$work/results

# Goes on while somebody wants to read.
scroll_sources() {
  while :; do
    for source in docs/protocol.md qora/service/*.cc; do
      while IFS= read -r line; do
        until [[ -e $work/scroll ]]; do sleep 0.1; done
        printf '%s\n' "$line"
        sleep 0.1
      done <"$source"
    done
  done
}

start_programs() {
  export work
  export -f scroll_sources
  start_window Reader "${terminal[@]}" -class Reader -T 'reading the sources' \
    -geometry 101x40+20+24 -e bash -c scroll_sources
  start_window Writer "${terminal[@]}" -class Writer -T notes -geometry 82x16+610+440 -e cat
  start_window XClock xclock -update 60 -geometry 190x190+1070+24
  start_window XEyes xeyes -geometry 190x120+1070+266
  start_window XCalc xcalc -geometry "230x310+$calculator_x+$calculator_y"
  sleep 1
}

# Takes the calculator by its title bar and carries it round in a loop, about a step for each frame.
drag_calculator() {
  local path
  mapfile -t path < <(awk -v x=$((calculator_x + 115)) -v y=$((calculator_y + 8)) 'BEGIN {
    printf "mousemove\n%d\n%d\nmousedown\n1\n", x, y
    steps = 100
    for (step = 0; step <= steps; ++step) {
      angle = 2 * 3.14159265 * step / steps
      printf "mousemove\n%d\n%d\nsleep\n0.035\n",
        x - 220 * (1 - cos(angle)), y + 150 * sin(angle / 2) ^ 2
    }
    printf "mouseup\n1\n"
  }')
  xdotool "${path[@]}"
}

act() {
  xdotool mousemove 700 560 click 1 sleep 0.5
  xdotool type --delay 60 'What is typed costs a few bytes a letter.'
  touch "$work/scroll"
  sleep 6
  drag_calculator
  sleep 1
  rm "$work/scroll"
  sleep 1.5 # stands still
}

# record MOVES FILE: the scene on a screen of its own.
record() {
  local recorder
  rm -f "$work/scroll"
  start_screen "$width" "$height"
  start_programs
  set -m
  "$programs/qora-record" --moves "$1" --cursor off --fps 25 --key-interval 0 -o "$2" \
    </dev/null 2>"$work/summary.$1" &
  recorder=$!
  set +m
  act
  ffmpeg -nostdin -v error -y -f x11grab -draw_mouse 0 -video_size "${width}x${height}" \
    -i "$DISPLAY" -frames:v 1 "$work/screen.$1.png"
  kill -INT "$recorder"
  wait "$recorder" || fail "recording failed" "$work/summary.$1"
  end_jobs
}

# What a recording's summary says: TEXT before or after the number, see the calls.
said() { sed -nE "s/.*recorded.*[ ,]$2.*/\\1/p" "$work/summary.$1"; }

# luma_psnr ONE OTHER: decibels of two pictures.
luma_psnr() {
  local luma='scale=out_color_matrix=bt709,format=yuv444p'
  ffmpeg -nostdin -hide_banner -i "$1" -i "$2" \
    -lavfi "[0:v]${luma}[a];[1:v]${luma}[b];[a][b]psnr" -f null - 2>&1 |
    sed -n 's/.*PSNR.* y:\([^ ]*\).*/\1/p'
}

row() { printf '%-32s %14s %14s\n' "$@"; }

# compare SOURCE DECODED: side by side, with the difference.
compare() {
  ffmpeg -nostdin -v error -y -i "$1" -i "$2" -filter_complex \
    '[0:v]format=gbrp,split[a][b];[1:v]format=gbrp,split[c][d];
     [b][d]blend=all_mode=difference,lutrgb=r=val*8:g=val*8:b=val*8[e];[a][c][e]hstack=3' \
    -frames:v 1 "$results/compare.png"
}

# plot WITH WITHOUT: two lists of seconds and bytes.
plot() {
  gnuplot <<-END
	set terminal pngcairo size 1200,500
	set output '$results/bytes.png'
	set datafile separator ','
	set logscale y
	set xlabel 'seconds'
	set ylabel 'bytes a frame'
	set grid
	plot '$2' using 1:2 with points pointtype 7 pointsize 0.6 title 'without moves', \
	     '$1' using 1:2 with points pointtype 7 pointsize 0.6 title 'with moves'
	END
}

list_moves() { "$programs/qora-view" --list "$results/desktop.qora" | awk -F, 'NR > 1 { print $2 "," $4 }'; }
total() { awk -F, '{ bytes += $2 } END { print bytes + 0 }' "$1"; }

demo_record() {
  record on "$results/desktop.qora"
  record off "$results/desktop.mp4"
  list_moves >"$work/bytes.on"
  ffprobe -v error -show_entries packet=pts_time,size -of csv=p=0 "$results/desktop.mp4" \
    >"$work/bytes.off"
  "$programs/qora-view" --at 10000 --png "$work/shown.on.png" "$results/desktop.qora"
  ffmpeg -nostdin -v error -y -i "$results/desktop.mp4" -update 1 "$work/shown.off.png"
  compare "$work/screen.on.png" "$work/shown.on.png"
  plot "$work/bytes.on" "$work/bytes.off"

  local figures=() what
  for what in on off; do
    figures+=("$(said $what '([0-9]+) frames')" "$(total "$work/bytes.$what")"
      "$(said $what '([0-9.]+%) changed')" "$(said $what '([0-9.]+%) moved')"
      "$(said $what '([0-9.]+)% of a processor')" "$(said $what '0:([0-9:]+)  ')"
      "$(luma_psnr "$work/screen.$what.png" "$work/shown.$what.png")")
  done
  local names=(frames bytes 'changed, of the macroblocks' 'copied, of the macroblocks' \
    'processor, % of one' 'minutes and seconds' 'PSNR at the end, luma, dB') i
  echo
  row '' 'with moves' without
  for i in "${!names[@]}"; do
    row "${names[i]}" "${figures[i]}" "${figures[i + ${#names[@]}]}"
  done
  row 'processor time a frame, ms' "$(processor_time 0)" "$(processor_time ${#names[@]})"
}

# Of the figures from FIRST on.
processor_time() {
  local minutes=${figures[$1 + 5]}
  awk -v frames="${figures[$1]}" -v share="${figures[$1 + 4]}" \
    -v seconds=$((10#${minutes%:*} * 60 + 10#${minutes#*:})) \
    'BEGIN { printf "%.1f", share * 10 * seconds / frames }'
}

# encode FILE OPTION...: the clip, checked frame by frame.
encode() {
  set -m
  "$programs/qora-encode" "$clip" -o "$1" --verify --stats "$1.csv" "${@:2}" 2>"$1.log" &
  set +m
  wait $! || [[ $? == 3 ]] || fail "encoding $clip failed" "$1.log"
  grep '^qora-encode:' "$1.log" || true # a frame that does not show the clip
}

# column NAME CSV: its sum.
column() {
  awk -F, -v name="$1" 'NR == 1 { for (i = 1; i <= NF; ++i) if ($i == name) at = i; next }
    at { sum += $at } END { print sum + 0 }' "$2"
}

demo_encode() {
  local rate middle name figures=() i=0
  encode "$results/desktop.qora" --moves
  encode "$work/desktop.264"
  rate=$(ffprobe -v error -select_streams v:0 -show_entries stream=r_frame_rate -of csv=p=0 "$clip")
  ffmpeg -nostdin -v error -y -framerate "$rate" -i "$work/desktop.264" -c copy "$results/desktop.mp4"
  middle=$((($(wc -l <"$results/desktop.qora.csv") - 1) / 2))
  "$programs/qora-view" --frame "$middle" --png "$work/shown.png" "$results/desktop.qora"
  ffmpeg -nostdin -v error -y -i "$clip" -vf "select=eq(n\\,$middle),scale=in_color_matrix=bt709" \
    -frames:v 1 "$work/source.png"
  compare "$work/source.png" "$work/shown.png"
  list_moves >"$work/bytes.on"
  ffprobe -v error -show_entries packet=pts_time,size -of csv=p=0 "$results/desktop.mp4" \
    >"$work/bytes.off"
  plot "$work/bytes.on" "$work/bytes.off"
  echo
  row '' 'with moves' without
  for name in bytes encode_ms changed_macroblocks copied_macroblocks; do
    row "$name" "$(column $name "$results/desktop.qora.csv")" "$(column $name "$work/desktop.264.csv")"
  done
  for name in "$results/desktop.qora" "$work/desktop.264"; do
    figures+=("$(sed -n 's/.*, PSNR \(.*\), .* at frame.*/\1/p' "$name.log")")
  done
  row 'PSNR of all frames' "${figures[@]}"
  rm "$results"/*.log "$results"/*.csv
}

serve() {
  start_screen "$width" "$height"
  start_programs
  touch "$work/scroll"
  set -m
  setpriv --pdeathsig TERM "$programs/qora-serve" --display "$DISPLAY" "${serve_options[@]}" </dev/null &
  set +m
  wait $!
}

[[ -z ${clip:-} || -r $clip ]] || fail "cannot read $clip"
scripts/build.sh release demo
mkdir -p "$results"
case $mode in
  serve) serve ;;
  record) demo_record ;;
  encode) demo_encode ;;
esac
[[ $mode == serve ]] && exit
trap '' HUP INT TERM # all results or none
mkdir -p demo
mv -f "$results"/* demo/
echo
ls demo/desktop.qora demo/desktop.mp4 demo/compare.png demo/bytes.png
