#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-2-Clause
# Usage: tests/session/check_exports.sh LIBRARY HEADER
# The library exports the functions that its header declares and nothing else.
set -euo pipefail
diff <(grep -o '\<qora_session_[a-z_]*(' "$2" | tr -d '(' | sort -u) \
     <(nm -D --defined-only "$1" | sed -n 's/.* [^A] \([^@]*\).*/\1/p' | sort)
