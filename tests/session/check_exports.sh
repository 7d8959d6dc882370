#!/usr/bin/env bash
# Usage: tests/session/check_exports.sh LIBRARY HEADER
# The library exports what its header declares and nothing else, under the soname that its users know.
set -euo pipefail
diff <(grep -o '\<qora_session_[a-z_]*(' "$2" | tr -d '(' | sort -u) \
     <(nm -D --defined-only "$1" | sed -n 's/.* [^A] \([^@]*\).*/\1/p' | sort)
readelf -d "$1" | grep -F '[libqora-session.so.0]'
