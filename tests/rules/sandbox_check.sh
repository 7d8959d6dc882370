#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-2-Clause
# Usage: tests/rules/sandbox_check.sh filter|bubblewrap|calls BUILD_FOLDER
# filter      the service works as ever under its system call filter, and the filter refuses
# bubblewrap  the service, unchanged, works in a sandbox without network and with read-only files,
#             with and without the filter
# calls       once started, the service makes no system call that docs/sandbox.md does not list, and
#             for a frame of its own no more than a read and a writev
# Ends with 77 after a reason when the machine does not let it be tried.
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

# encode NAME OPTION...: twelve pictures with one thread and with several, in both rate modes, high
# enough for four of the encoder's threads. The bytes have to be those of the service as it is.
encode() {
  local name=$1 threads bitrate
  shift
  (seq 1 100000 || true) | head -c $((12 * 112 * 272 * 3 / 2)) >"$folder/clip.i420"
  for threads in 1 4 0; do
    for bitrate in "" --bitrate=500; do
      "$build/qora-encode" --quiet --size 112x272 --threads "$threads" $bitrate --streams 2 "$@" \
        "$folder/clip.i420" -o "$folder/$name.264" 2>>"$folder/log" ||
        fail "$name: $(tail -3 "$folder/log")"
      cat "$folder/$name.264" "$folder/$name.1.264" >>"$folder/$name.all"
    done
  done
  [[ $name == plain ]] || cmp "$folder/plain.all" "$folder/$name.all" || fail "$name: other bytes"
}

# encode_as NAME COMMAND: the same with the service started by a command.
encode_as() {
  printf '#!/bin/sh\nexec %s\n' "$2" >"$folder/qora-codec"
  chmod +x "$folder/qora-codec"
  encode "$1" --service "$folder/qora-codec"
}

# refused COMMAND...: the filter ends it.
refused() {
  local status=0
  "$build/qora-sandbox" "$@" >/dev/null 2>&1 || status=$?
  [[ $status -eq $((128 + 31)) ]] || fail "'$*' ended with $status, not by SIGSYS"
}

# rows PATTERN: the calls of the table in docs/sandbox.md, whose rows are | `call` | work or start | ...
rows() {
  sed -n "s/^| \`\([a-z0-9_]*\)\` | $1 .*/\1/p" "$root/docs/sandbox.md" | sort -u
}

encode plain
case $mode in
filter)
  encode filtered --sandbox
  "$build/qora-sandbox" /bin/true || fail "a program that does nothing forbidden cannot run"
  refused /bin/mkdir "$folder/made"
  refused /bin/dd if=/dev/zero of="$folder/made" count=1
  refused /usr/bin/env /bin/true # a second program
  refused /bin/sh -c 'true & wait'
  [[ ! -e $folder/made ]] || fail "the filter let something be made"
  ;;
bubblewrap)
  command -v bwrap >/dev/null || skip "bubblewrap is not installed"
  bwrap="bwrap --ro-bind / / --dev /dev --proc /proc --unshare-net --unshare-pid --unshare-uts
    --die-with-parent --new-session"
  bwrap=${bwrap//$'\n'/}
  $bwrap /bin/true 2>"$folder/why" || skip "no namespaces here: $(cat "$folder/why")"
  ! $bwrap /bin/mkdir "$folder/made" 2>/dev/null || fail "the sandbox is not read-only"
  encode_as confined "$bwrap $build/qora-codec"
  encode_as both "$bwrap $build/qora-sandbox $build/qora-codec"
  ;;
calls)
  command -v strace >/dev/null || skip "strace is not installed"
  strace -o "$folder/why" /bin/true 2>&1 || skip "no tracing here"
  encode_as traced "strace -f --seccomp-bpf -qq -o $folder/trace.\$\$ $build/qora-codec"
  # Two streams of twelve frames: one gathered write each, and at most one read; beside the frames
  # there are the commands that begin and end a session, and the end of input.
  for trace in "$folder"/trace.*; do
    [[ $(grep -c 'writev(1,' "$trace") -eq 24 ]] || fail "not one writev a frame: $trace"
    [[ $(grep -c 'read(0,' "$trace") -le $((24 + 8)) ]] || fail "more than one read a frame: $trace"
  done
  # Diagnostics, growth of the buffer, an end in disorder.
  for input in '\10\0\0\0\1\0\3\0\210\23\4\0\1\0\3\0\6\0\0\0\11\0' '\0\0\20\0\1\0\3\0'; do
    printf "$input" | QORA_SYSTEM=$build/codec-root strace -f -qq -o "$folder/trace.${#input}" \
      "$build/qora-codec" 2>/dev/null || true
  done
  # Start-up ends with the first read of the command pipe.
  for trace in "$folder"/trace.*; do
    sed 's/^[0-9]* *//' "$trace" | awk '/^read\(0,/ { started = 1 } started'
  done | sed -n 's/^\([a-z][a-z0-9_]*\)(.*/\1/p' | sort -u >"$folder/made"
  for call in read writev shmat shmdt exit_group; do
    grep -qx "$call" "$folder/made" || fail "the trace has no $call"
  done
  extra=$(comm -23 "$folder/made" <(rows work))
  [[ -z $extra ]] || fail "not in docs/sandbox.md as made at work:" $extra
  grep -o 'SCMP_SYS([a-z0-9_]*)' "$root/qora/sandbox/call_filter.cc" | sed 's/.*(\(.*\))/\1/' |
    sort -u | diff <(rows '[a-z]*') - || fail "docs/sandbox.md and the filter differ"
  ;;
*) fail "filter, bubblewrap or calls, not '$mode'" ;;
esac
echo "sandbox_check $mode: good"
