#!/usr/bin/env bash
# Usage: tests/rules/sandbox_check.sh filter|bubblewrap|calls BUILD_FOLDER
# filter      the service works as ever under its system call filter, and the filter refuses
# bubblewrap  the service, unchanged, works in a sandbox without network and with read-only files,
#             with and without the filter
# calls       once started, the service makes no system call that docs/sandbox.md does not list, and
#             for a frame of its own no more than a read and a writev
# Ends with 77 behind a reason when the machine does not let it be tried.
set -euo pipefail
mode=$1
build=$(realpath "$2")
root=$(realpath "$(dirname "${BASH_SOURCE[0]}")/../..")
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
export TZ=:/etc/localtime

fail() {
  echo "sandbox_check: $*" >&2
  exit 1
}
skip() {
  echo "sandbox_check: skipped: $*"
  exit 77
}

# Twelve pictures with something moving, high enough for four of the encoder's threads.
make_clip() {
  python3 - "$folder/clip.i420" <<'PYTHON'
import sys
width, height = 112, 272
with open(sys.argv[1], "wb") as clip:
    for n in range(12):
        clip.write(bytes((x * y // 7 + (n * 9 if 30 < x < 90 else 0)) & 255
                         for y in range(height) for x in range(width)))
        clip.write(bytes(128 + (i + n) % 40 for i in range(width * height // 2)))
PYTHON
}

# encode NAME OPTION...: the clip, with one thread and with several, in both rate modes.
encode() {
  local name=$1 threads bitrate
  shift
  for threads in 1 4 0; do
    for bitrate in "" --bitrate=500; do
      "$build/qora-encode" --quiet --size 112x272 --threads "$threads" $bitrate --streams 2 "$@" \
        "$folder/clip.i420" -o "$folder/$name.264" 2>>"$folder/log" ||
        fail "$name: $(tail -3 "$folder/log")"
      cat "$folder/$name.264" "$folder/$name.1.264" >>"$folder/$name.all"
    done
  done
}

same() {
  cmp "$folder/plain.all" "$folder/$1.all" || fail "$1: other bytes than without"
}

# refused COMMAND...: the filter ends it.
refused() {
  local status=0
  "$build/qora-sandbox" "$@" >/dev/null 2>&1 || status=$?
  [[ $status -eq $((128 + 31)) ]] || fail "'$*' ended with $status, not by SIGSYS"
}

make_wrapper() {
  printf '#!/bin/sh\nexec %s\n' "$1" >"$folder/qora-codec"
  chmod +x "$folder/qora-codec"
}

make_clip
case $mode in
filter)
  encode plain
  encode filtered --sandbox
  same filtered
  "$build/qora-sandbox" /bin/true || fail "a program that does nothing forbidden cannot run"
  refused /bin/mkdir "$folder/made"
  refused /bin/dd if=/dev/zero of="$folder/made" count=1
  refused /usr/bin/env /bin/true # a second program
  refused /bin/sh -c 'true & wait'
  [[ ! -e $folder/made ]] || fail "the filter let something be made"
  ;;
bubblewrap)
  command -v bwrap >/dev/null || skip "bubblewrap is not installed"
  bwrap=(bwrap --ro-bind / / --dev /dev --proc /proc --unshare-net --unshare-pid --unshare-uts
    --die-with-parent --new-session)
  "${bwrap[@]}" /bin/true 2>"$folder/why" || skip "no namespaces here: $(cat "$folder/why")"
  ! "${bwrap[@]}" /bin/mkdir "$folder/made" 2>/dev/null || fail "the sandbox is not read-only"
  encode plain
  make_wrapper "${bwrap[*]} $build/qora-codec"
  encode confined --service "$folder/qora-codec"
  same confined
  make_wrapper "${bwrap[*]} $build/qora-sandbox $build/qora-codec"
  encode both --service "$folder/qora-codec"
  same both
  ;;
calls)
  command -v strace >/dev/null || skip "strace is not installed"
  strace -o "$folder/trace" /bin/true 2>"$folder/why" || skip "no tracing here: $(cat "$folder/why")"
  make_wrapper "strace -f --seccomp-bpf -qq -o $folder/trace.\$\$ $build/qora-codec"
  encode traced --service "$folder/qora-codec"
  # Diagnostics, growth of the buffer, an end in disorder.
  export QORA_SYSTEM=$build/codec-root
  printf '\10\0\0\0\1\0\3\0\210\23\4\0\1\0\3\0\6\0\0\0\11\0' |
    strace -f -qq -o "$folder/trace.odd" "$build/qora-codec" 2>/dev/null || true
  printf '\0\0\20\0\1\0\3\0' | strace -f -qq -o "$folder/trace.end" "$build/qora-codec" 2>/dev/null

  # Start-up ends with the first read of the command pipe.
  for trace in "$folder"/trace.*; do
    sed 's/^[0-9]* *//' "$trace" | awk '/^read\(0,/ { started = 1 } started'
  done | sed -n 's/^\([a-z][a-z0-9_]*\)(.*/\1/p' | sort -u >"$folder/made"
  # Rows of the table: | `call` | work or start | ...
  sed -n 's/^| `\([a-z0-9_]*\)` | work .*/\1/p' "$root/docs/sandbox.md" | sort -u >"$folder/listed"
  sed -n 's/^| `\([a-z0-9_]*\)` | .*/\1/p' "$root/docs/sandbox.md" | sort -u >"$folder/allowed"
  grep -o 'SCMP_SYS([a-z0-9_]*)' "$root/qora/sandbox/call_filter.cc" | sed 's/.*(\(.*\))/\1/' | sort -u \
    >"$folder/filtered"

  # Two streams of twelve frames: one gathered write each, and at most one read; beside the frames
  # there are the commands that begin and end a session, and the end of input.
  for trace in "$folder"/trace.[0-9]*; do
    [[ $(grep -c 'writev(1,' "$trace") -eq 24 ]] || fail "not one writev a frame: $trace"
    [[ $(grep -c 'read(0,' "$trace") -le $((24 + 8)) ]] || fail "more than one read a frame: $trace"
  done

  for call in read writev shmat shmdt exit_group; do
    grep -qx "$call" "$folder/made" || fail "the trace has no $call"
  done
  extra=$(comm -23 "$folder/made" "$folder/listed")
  [[ -z $extra ]] || fail "not in docs/sandbox.md as made at work:" $extra
  diff "$folder/allowed" "$folder/filtered" || fail "docs/sandbox.md and the filter differ"
  ;;
*) fail "filter, bubblewrap or calls, not '$mode'" ;;
esac
echo "sandbox_check $mode: good"
