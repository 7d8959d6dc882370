# SPDX-License-Identifier: BSD-2-Clause
# benchmarks/scenes.sh -- What goes on on a desktop of 1920x1080: windows_of_SCENE puts them up,
# act_SCENE is what is filmed. Source it after scripts/lib/desktop.sh.

readonly terminal=(xterm -fa 'DejaVu Sans Mono' -fs 10 -bg '#20242c' -fg '#d8dee9' +sb)

# What the windows show: sources, so that every run films the same kind of text.
show_sources() {
  cat qora/service/channel.cc qora/service/frame.cc
  sleep infinity
}
# The same lines every ten seconds.
scroll_sources() { # LINES COLUMNS: so many at once, so wide
  local lines
  while true; do
    pr --merge --omit-header --page-width="$2" <(cat qora/service/*.cc) <(cat qora/client/*.cc) |
      head -n "$((230 * $1))" |
      while mapfile -t -n "$1" lines && [[ ${#lines[@]} -gt 0 ]]; do
        printf '%s\n' "${lines[@]}"
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
  start_window Reader "${terminal[@]}" -class Reader -geometry 236x62+0+0 \
    -e bash -c "scroll_sources ${1:-1} 230"
  sleep 3 # until the window is full and every line scrolls
}
act_scrolling() {
  sleep infinity
}

# The same in a window of half the screen, beside another.
windows_of_reading() {
  start_window Editor "${terminal[@]}" -class Editor -geometry 110x60+10+20 \
    -e bash -c show_sources
  start_window Reader "${terminal[@]}" -class Reader -geometry 110x60+960+20 \
    -e bash -c "scroll_sources 1 108"
  sleep 3
}
act_reading() {
  sleep infinity
}

# What a build prints.
windows_of_flooding() {
  windows_of_scrolling 3
}
act_flooding() {
  sleep infinity
}

windows_of_dragging() {
  start_window Reader "${terminal[@]}" -class Reader -geometry 110x60+960+20 \
    -e bash -c show_sources
  start_window XClock xclock -geometry 260x260+80+700
  start_window Carried "${terminal[@]}" -class Carried -geometry 80x30+200+60 \
    -e bash -c show_sources
}
# Takes the window by its title bar and carries it over the others, a step a picture, three loops that
# end where they began.
act_dragging() {
  local path
  mapfile -t path < <(awk 'BEGIN {
    x = 500; y = 68
    printf "mousemove\n%d\n%d\nsleep\n0.3\nmousedown\n1\n", x, y
    for (step = 0; step <= 480; ++step) {
      angle = 2 * 3.14159265 * step / 160
      printf "mousemove\n%d\n%d\nsleep\n0.037\n",
        x + 420 * (1 - cos(angle)), y + 320 * sin(angle / 2) ^ 2
    }
    printf "mouseup\n1\n"
  }')
  xdotool "${path[@]}"
}

windows_of_idle() {
  start_window Reader "${terminal[@]}" -class Reader -geometry 110x60+960+20 \
    -e bash -c show_sources
}
act_idle() {
  sleep infinity
}

# A film in a window of 640x360, 25 pictures a second.
windows_of_video() {
  windows_of_idle
  start ffplay -loglevel error -f lavfi -i testsrc2=size=640x360:rate=25 -left 100 -top 100 -noborder
  timeout 60 xdotool search --sync --onlyvisible --class ffplay >/dev/null || fail "no film came up"
}
act_video() {
  sleep infinity
}
