#!/usr/bin/env bash
# Usage: benchmarks/compare.sh
# Measures everything anew: what we hold ourselves to (bench_limits), how cost grows (bench_growth),
# and a race of the service with the encoder called in-process, the x264 program and ffmpeg over
# three clips of a desktop. Prints the tables, draws docs/images/*.png and rewrites the measured
# section of docs/performance.md. Raw figures and the clips stay in build/benchmarks.
# QORA_ROUNDS=N (5) sets how often each program runs in the race. Leave the machine alone meanwhile.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

readonly work=build/benchmarks programs=build/release/benchmarks
readonly clips=(typing scrolling dragging)
readonly racers=(service skipping in-process x264 ffmpeg)
readonly rounds=${QORA_ROUNDS:-5} kbps=6000 qp_min=10

# One set of settings in each program's own words.
declare -rA commands=(
  [service]="build/release/qora-encode - -o OUT --threads 1 --bitrate $kbps --qp-min $qp_min --quiet"
  [skipping]="build/release/qora-encode - -o OUT --threads 1 --bitrate $kbps --qp-min $qp_min --quiet
    --skip-unchanged"
  [in-process]="$programs/bench_floor - OUT $kbps $qp_min"
  [x264]="x264 --quiet --no-progress --demuxer y4m --preset ultrafast --tune zerolatency
    --profile baseline --keyint infinite --no-scenecut --aq-mode 1 --threads 1 --bitrate $kbps
    --ratetol 0.01 --qpmin $qp_min --qpmax 51 -o OUT -"
  [ffmpeg]="ffmpeg -loglevel error -f yuv4mpegpipe -i pipe:0 -y -c:v libx264 -preset ultrafast
    -tune zerolatency -profile:v baseline -b:v ${kbps}k -x264-params
    keyint=infinite:scenecut=0:aq-mode=1:threads=1:ratetol=0.01:qpmin=$qp_min:qpmax=51 -f h264 OUT"
)

# race > CSV: clip,racer,frames,seconds,p50_ms,p99_ms,cpu_seconds,mib,bytes; a row a run.
race() {
  local round clip racer command
  for ((round = 0; round < rounds; ++round)); do
    for clip in "${clips[@]}"; do
      for racer in "${racers[@]}"; do
        read -r -d '' -a command <<<"${commands[$racer]//OUT/$work/$racer.264}" || true
        printf '%s,%s,' "$clip" "$racer"
        "$programs/bench_feed" "$work/clips/$clip.y4m" "$work/$racer.264" "${command[@]}" \
          2>>"$work/race.log"
      done
    done
  done
}

readonly median_function='
    function median(list, count,    i, j, t) {
      for (i = 2; i <= count; ++i)
        for (j = i; j > 1 && list[j - 1] + 0 > list[j] + 0; --j) {
          t = list[j]; list[j] = list[j - 1]; list[j - 1] = t
        }
      return list[int((count + 1) / 2)]
    }'

# medians < race > the same columns with frames a second in place of frames and seconds; a row for
# each clip and racer.
medians() {
  awk -F , -v OFS=, "$median_function"'
    { key = $1 "," $2
      if (!(key in runs)) keys[++kinds] = key
      ++runs[key]
      value[key, runs[key], 1] = $3 / $4
      for (i = 5; i <= 9; ++i) value[key, runs[key], i - 3] = $i
    }
    END {
      for (k = 1; k <= kinds; ++k) {
        line = keys[k]
        for (i = 1; i <= 6; ++i) {
          for (r = 1; r <= runs[keys[k]]; ++r) list[r] = value[keys[k], r, i]
          line = line "," median(list, runs[keys[k]])
        }
        print line
      }
    }'
}

race_table() {
  awk -F , '
    BEGIN {
      names["service"] = "service, every picture"
      names["skipping"] = "service, unchanged skipped"
      names["in-process"] = "in-process (the floor)"
      names["x264"] = "x264 program"
      names["ffmpeg"] = "ffmpeg, libx264"
      print "| clip | encoder | frames/s | p50 ms | p99 ms | CPU s | kB | MiB | speed, times the floor |"
      print "|---|---|---|---|---|---|---|---|---|"
    }
    { row[NR] = $0; fps[$1, $2] = $3 }
    END {
      for (n = 1; n <= NR; ++n) {
        split(row[n], f, ",")
        printf "| %s | %s | %.1f | %.2f | %.2f | %.2f | %.0f | %.0f | %.2f |\n", f[1], names[f[2]],
          f[3], f[4], f[5], f[6], f[8] / 1000, f[7], f[3] / fps[f[1], "in-process"]
      }
    }' "$work/medians.csv"
}

# Medians of the ratios within a round: a machine that slows down does so for all programs.
race_verdicts() {
  awk -F , "$median_function"'
    function row(clip, racer, what, other, limit,    r, list, value) {
      for (r = 1; r <= runs[clip, racer]; ++r) list[r] = fps[clip, racer, r] / fps[clip, other, r]
      value = median(list, runs[clip, racer])
      printf("%-78s %8.3f        at least %-5g %s\n", clip ": frames a second, " what ", times " \
        (other == "x264" ? "the x264 program" : "ffmpeg"), value, limit,
        value >= limit ? "pass" : "FAIL")
    }
    { fps[$1, $2, ++runs[$1, $2]] = $3 / $4; clips[$1] }
    END {
      for (clip in clips) {
        row(clip, "service", "every picture", "x264", 1)
        row(clip, "service", "every picture", "ffmpeg", 1)
        row(clip, "skipping", "unchanged skipped", "x264", clip == "typing" ? 1.5 : 1)
        row(clip, "skipping", "unchanged skipped", "ffmpeg", clip == "typing" ? 4 : 1)
      }
    }' "$work/race.csv" | sort
}

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

Medians of $rounds runs, programs in turn. ${kbps} kbit/s, quantizers from $qp_min, one encoder
thread, 150 pictures of 1920x1080, fed through a pipe to every program alike. CPU seconds and
memory are those of all its processes.

$(race_table)

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

scripts/build.sh release
mkdir -p "$work" docs/images
benchmarks/record_clips.sh "$work/clips"
paths=("${clips[@]/#/$work/clips/}")
paths=("${paths[@]/%/.y4m}")

echo "single functions" >&2
"$programs/bench_micro" --benchmark_min_time=0.02 --benchmark_out="$work/micro.json" \
  >"$work/micro.txt" 2>"$work/micro.log"
echo "limits" >&2
"$programs/bench_limits" "${paths[@]}" >"$work/limits.txt" 2>"$work/limits.log"
for clip in "${clips[@]}"; do
  "$programs/bench_frames" "$work/clips/$clip.y4m" >"$work/frames-$clip.csv" 2>>"$work/limits.log"
done
echo "growth" >&2
"$programs/bench_growth" >"$work/growth.csv" 2>"$work/growth.log"
echo "race" >&2
: >"$work/race.log"
race >"$work/race.csv"
medians <"$work/race.csv" >"$work/medians.csv"
race_verdicts >>"$work/limits.txt"

gnuplot benchmarks/plots.gp
report=docs/performance.md
sed -i '/^<!-- measured:/,$d' "$report"
measured_section >>"$report"
race_table | column -t -s '|'
cat "$work/limits.txt"
