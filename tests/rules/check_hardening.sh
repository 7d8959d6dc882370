#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-2-Clause
# Usage: tests/rules/check_hardening.sh FILE...
# Holds what every shipped program and library is built with: position independent, relocations done
# and read-only before the first instruction of ours, no executable stack, stack protector, checked
# C library calls, and on x86-64 function entries marked for control-flow protection.
set -eu # no pipefail: grep leaves when it has found its line
failed=0

# expect WHAT PATTERN COMMAND...: a line of the command's output for $file has the pattern.
expect() {
  "${@:3}" "$file" | grep -Eq "$2" || { echo "$file: not $1"; failed=1; }
}

for file in "$@"; do
  expect "position independent" 'Type: +DYN' readelf -hW
  expect "with read-only relocations" 'GNU_RELRO' readelf -lW
  expect "bound before it runs" 'BIND_NOW|FLAGS_1.* NOW' readelf -dW
  expect "without an executable stack" 'GNU_STACK .* RW ' readelf -lW
  expect "with a stack protector" '__stack_chk_fail' readelf -sW
  expect "with checked C library calls" '__[a-z]+_chk(@| |$)' readelf -sW
  [[ $(uname -m) == x86_64 ]] || continue
  # The first function of ours in the file.
  name=$(nm --defined-only "$file" | sed -n 's/.* T \(main\|x264_encoder_encode\|qora_session_encode\)$/\1/p' | head -1)
  expect "marked for control-flow protection" endbr64 objdump --disassemble="$name"
done
exit "$failed"
