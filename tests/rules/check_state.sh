#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-2-Clause
# Usage: tests/rules/check_state.sh OBJECT_FILE...
# Compares the writable variables of the product's object files with the list in
# docs/process_state.md, so that a new process-wide record is seen in review. Constants, a generator's
# tables, and what the C++ library and the sanitizers bring along, do not count; a guard variable's
# object does.
set -euo pipefail
list=$(dirname "${BASH_SOURCE[0]}")/../../docs/process_state.md

# Columns of nm's "sysv" form: name | value | class | type | size | line | section.
found=$(nm --demangle --format=sysv "$@" | awk -F ' *[|] *' '
  $7 ~ /^\.(data|bss|tdata|tbss)/ && $7 !~ /^\.data\.rel\.ro/ &&
  $1 !~ /^(std::|guard variable for |wlr_screencopy_|__odr_asan|__gcov|\.|DW\.ref\.)/ { print $1 }' | sort -u)
# Rows of the list: | `symbol` | ...
listed=$(sed -n 's/^| `\([^`]*\)` |.*/\1/p' "$list" | sort -u)

unlisted=$(comm -23 <(echo "$found") <(echo "$listed"))
gone=$(comm -13 <(echo "$found") <(echo "$listed"))
if [[ -n $unlisted ]]; then
  printf 'Writable, but not in docs/process_state.md:\n%s\n' "$unlisted"
fi
if [[ -n $gone ]]; then
  printf 'In docs/process_state.md, but not in the libraries:\n%s\n' "$gone"
fi
[[ -z $unlisted && -z $gone ]]
