#!/usr/bin/env bash
# SPDX-License-Identifier: BSD-2-Clause
# Usage: benchmarks/compare.sh
# Measures everything anew: what we hold ourselves to (bench_limits), how cost grows (bench_growth),
# and a race of the service with the encoder called in-process, the x264 program and ffmpeg over
# three clips of a desktop. Prints the tables, draws docs/images/*.png and rewrites the measured
# section of docs/performance.md. Raw figures and the clips stay in build/benchmarks.
# QORA_ROUNDS=N (5) sets how often each program runs in the race. Leave the machine alone meanwhile.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

readonly work=build/benchmarks programs=build/release/benchmarks report=docs/performance.md
readonly clips=(typing scrolling dragging) rounds=${QORA_ROUNDS:-5}

machine() {
  echo "- $(sed -n 's/^model name\t*: //p' /proc/cpuinfo | head -1), $(nproc) CPUs," \
    "$(awk '/MemTotal/ { printf "%.0f GiB", $2 / 1048576 }' /proc/meminfo) of memory," \
    "Linux $(uname -r | cut -d - -f 1)"
  echo "- $(x264 --version | head -1), $(ffmpeg -version | head -1 | cut -d ' ' -f 1-3)," \
    "$(c++ --version | head -1)"
}

measured_section() {
  cat <<END
<!-- measured: benchmarks/compare.sh writes from here to the end -->
## Measured

$(machine)

### The race

Medians of $rounds runs, programs in turn. 6000 kbit/s, quantizers from 10, one encoder
thread, 150 pictures of 1920x1080, fed through a pipe to every program alike. CPU seconds and
memory are those of all its processes.

$(cat "$work/race.md")

![Frames a second in the race](images/race.png)

### What we hold ourselves to

\`\`\`
$(cat "$work/limits.txt")
\`\`\`

### How cost grows

![Cost by rectangles, reply, picture, changes, streams and threads](images/growth.png)

![What a round trip costs besides the encoder, frame by frame](images/frames.png)
END
}

scripts/build.sh release tests live benchmarks
mkdir -p "$work" docs/images
benchmarks/record_clips.sh "$work/clips"

echo "single functions" >&2
"$programs/bench_micro" --benchmark_min_time=0.02 --benchmark_out="$work/micro.json" \
  >"$work/micro.txt" 2>"$work/micro.log"
echo "limits" >&2
paths=("${clips[@]/#/$work/clips/}")
# On one processor: two processes that answer each other take 2 microseconds there, and 5 to 60 on two,
# as the scheduler likes.
taskset --cpu-list "$(taskset --cpu-list --pid $$ | sed 's/.*[ ,-]//')" \
  "$programs/bench_limits" "${paths[@]/%/.y4m}" >"$work/limits.txt" 2>"$work/limits.log"
for clip in "${clips[@]}"; do
  "$programs/bench_frames" "$work/clips/$clip.y4m" >"$work/frames-$clip.csv" 2>>"$work/limits.log"
done
echo "growth" >&2
"$programs/bench_growth" >"$work/growth.csv" 2>"$work/growth.log"
echo "race" >&2
benchmarks/race.py "$work" "$rounds" "${clips[@]}" >>"$work/limits.txt"

gnuplot benchmarks/plots.gp
sed -i '/^<!-- measured:/,$d' "$report"
measured_section >>"$report"
column -t -s '|' "$work/race.md"
cat "$work/limits.txt"
