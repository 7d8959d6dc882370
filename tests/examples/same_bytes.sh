#!/usr/bin/env bash
# Usage: tests/examples/same_bytes.sh BUILD_FOLDER
# The examples in every language, and qora-encode, give the same bytes for one clip.
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
[[ -s $folder/encode.264 ]]
cmp "$folder/encode.264" "$folder/c.264"
cmp "$folder/encode.264" "$folder/python.264"
