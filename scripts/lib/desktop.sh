# SPDX-License-Identifier: BSD-2-Clause
# scripts/lib/desktop.sh -- A virtual X screen with programs on it, for scripts that film it.
# Source it. It makes the temporary folder $work, and at the end, also after Ctrl-C or when the
# terminal closes, ends every job and deletes the folder.

work=$(mktemp -d)

# Each job has a process group of its own: it is ended with all its children, and Ctrl-C reaches
# only us. The X server, the first job, goes last.
end_jobs() {
  local groups group
  mapfile -t groups < <(jobs -p | tac)
  for group in "${groups[@]}"; do
    kill -TERM -- "-$group" 2>/dev/null || true
    wait "$group" 2>/dev/null || true
  done
}

finish() {
  trap - EXIT
  trap '' HUP INT TERM # once is enough
  end_jobs
  rm -rf "$work"
}
trap finish EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM

# fail MESSAGE [LOG]
fail() {
  echo "${0##*/}: $1" >&2
  [[ ! -s ${2:-} ]] || cat "$2" >&2
  exit 1
}

start() {
  set -m
  "$@" </dev/null >>"$work/$1.log" 2>&1 &
  set +m
}

# start_window CLASS COMMAND...: one after another, so that windows always lie in the same order.
start_window() {
  start "${@:2}"
  timeout 60 xdotool search --sync --onlyvisible --class "$1" >/dev/null ||
    fail "no window of class $1 came up" "$work/$2.log"
}

# start_screen WIDTH HEIGHT: an X server, for which DISPLAY is set, and a window manager.
start_screen() {
  local deadline=$((SECONDS + 60))
  # The server chooses a free display itself and tells its number once it is ready.
  rm -f "$work/display"
  mkfifo "$work/display"
  # It ends, and with it all that draws on it, even if we are killed.
  start setpriv --pdeathsig TERM Xvfb -displayfd 3 -screen 0 "$1x$2x24" -nolisten tcp -noreset \
    3<>"$work/display"
  read -r -t 20 number <"$work/display" || fail "no X server came up" "$work/setpriv.log"
  export DISPLAY=:$number
  # A window that comes while the window manager starts is never shown.
  rm -f "$work/managed"
  start openbox --config-file /etc/xdg/openbox/rc.xml --startup "touch '$work/managed'"
  until [[ -e $work/managed ]]; do
    ((SECONDS < deadline)) || fail "no window manager came up" "$work/openbox.log"
    sleep 0.1
  done
  xsetroot -solid '#46657c'
}
