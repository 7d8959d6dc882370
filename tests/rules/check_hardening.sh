#!/usr/bin/env bash
# Usage: tests/rules/check_hardening.sh FILE...
# Holds what every shipped program and library is built with: position independent, relocations done
# and read-only before the first instruction of ours, no executable stack, stack protector, checked
# C library calls, and on x86-64 function entries marked for control-flow protection.
set -euo pipefail
failed=0

# expect FILE WHAT COMMAND PATTERN: the command's output has a line with the pattern.
expect() {
  local output
  output=$(eval "$3") || true
  if ! grep -Eq "$4" <<<"$output"; then
    echo "$1: not $2"
    failed=1
  fi
}

for file in "$@"; do
  quoted=$(printf '%q' "$file")
  expect "$file" "position independent" "readelf -hW $quoted" 'Type: +DYN'
  expect "$file" "with read-only relocations" "readelf -lW $quoted" 'GNU_RELRO'
  expect "$file" "bound before it runs" "readelf -dW $quoted" 'BIND_NOW|FLAGS_1.* NOW'
  expect "$file" "without an executable stack" "readelf -lW $quoted" 'GNU_STACK .* RW '
  expect "$file" "with a stack protector" "readelf -sW $quoted" '__stack_chk_fail'
  expect "$file" "with checked C library calls" "readelf -sW $quoted" '__[a-z]+_chk(@| |$)'
  if [[ $(uname -m) == x86_64 ]]; then
    # The first function of ours in the file.
    name=$(nm --defined-only "$file" | sed -n 's/.* T \(main\|x264_encoder_encode\)$/\1/p' | head -1)
    expect "$file" "marked for control-flow protection" \
      "objdump -d --disassemble=$name --no-show-raw-insn $quoted" 'endbr64'
  fi
done
exit "$failed"
