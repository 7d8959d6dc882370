#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-2-Clause
# Usage: tests/rules/check_reproducible.sh
# Builds what ships twice, in folders of different names and depths, and compares the installed
# files byte by byte.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

for folder in one another/and/deeper; do
  mkdir -p "$work/$folder"
  git ls-files --cached --others --exclude-standard -z | tar --create --null --files-from=- |
    tar --extract --directory="$work/$folder"
  (
    cd "$work/$folder"
    cmake --preset release -DQORA_TESTS=OFF -DCMAKE_INSTALL_PREFIX=/usr
    cmake --build --preset release
    DESTDIR="$work/installed/${folder%%/*}" cmake --install build/release
  ) >"$work/log" 2>&1 || { tail -30 "$work/log" >&2; exit 1; }
done

find "$work/installed/one" -type f | wc -l | sed 's/$/ files/'
diff --recursive --brief "$work/installed/one" "$work/installed/another"
! grep -r --files-with-matches --fixed-strings "$work" "$work/installed" ||
  { echo "the folder's name stands in these" >&2; exit 1; }
echo "both builds are the same"
