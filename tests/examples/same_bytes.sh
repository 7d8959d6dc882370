#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-2-Clause
# Usage: tests/examples/same_bytes.sh BUILD_FOLDER
# The examples in every language, and qora-encode, give the same bytes for one clip; but qora-encode
# makes the sequence parameter set, which comes first, tell the clip's rate.
set -euo pipefail
build=$(realpath "$1")
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

python3 - "$folder/clip.i420" <<'PYTHON'
import sys
width, height = 64, 48
with open(sys.argv[1], "wb") as clip:
    for n in range(10):
        clip.write(bytes((x * y // 5 + n * 7) & 255 for y in range(height) for x in range(width)))
        clip.write(bytes(128 + (i + n) % 40 for i in range(width * height // 2)))
PYTHON

parts=("$build/qora-codec" "$build/codec-root")
"$build/qora-encode" "$folder/clip.i420" --size 64x48 --no-rectangles --threads 1 --quiet \
  --codec-root "${parts[1]}" -o "$folder/encode.264"
"$build/tests/example_encode_clip" "${parts[@]}" 64 48 "$folder/clip.i420" "$folder/c.264"
python3 examples/encode_clip.py "${parts[@]}" 64x48 "$folder/clip.i420" "$folder/python.264"
"$build/tests/example_encode_clip_cc" "${parts[@]}" 64 48 "$folder/clip.i420" "$folder/cc.264"
# A library with a sanitizer needs the sanitizer's own before the program's.
library=$build/qora/session/libqora-session.so.0
sanitizer=$(ldd "$library" | sed -n 's/.* => \(.*lib[at]san[^ ]*\) .*/\1/p')
LD_PRELOAD=$sanitizer ASAN_OPTIONS=detect_leaks=0 QORA_SESSION_LIBRARY=$library \
  python3 examples/encode_clip_session.py "${parts[@]}" 64x48 "$folder/clip.i420" "$folder/session.264"
[[ -s $folder/encode.264 ]]
for other in python cc session; do cmp "$folder/c.264" "$folder/$other.264"; done
# From the picture parameter set on.
rest() { python3 -c 'import sys; d = open(sys.argv[1], "rb").read(); sys.stdout.buffer.write(d[d.index(b"\0\0\1\x68"):])' "$1"; }
cmp <(rest "$folder/encode.264") <(rest "$folder/c.264")
