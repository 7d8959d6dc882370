#!/usr/bin/env bash
# Usage: tests/fuzz/run.sh SECONDS [WORKERS]
# Runs every fuzzer and the storm on the whole process within about SECONDS, WORKERS of them (2) at a
# time, and prints "NAME EXECUTIONS FINDINGS" for each and for all. Ends with 1 if anything was
# found; inputs and logs are then in build/fuzz/findings. What covered something new stays in
# build/fuzz/corpus and is where the next run goes on.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
seconds=${1:?usage: tests/fuzz/run.sh SECONDS [WORKERS]}
workers=${2:-2}

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz >&2
cmake --preset release >/dev/null
cmake --build --preset release --target process_storm >&2

names=()
for folder in fuzz/corpus/*/; do names+=("$(basename "$folder")"); done
# The session is where everything meets: it gets the time of four.
jobs=(storm session session session session)
for name in "${names[@]}"; do [[ $name == session ]] || jobs+=("$name"); done
share=$((seconds * workers / ${#jobs[@]}))
[[ $share -gt 0 ]] || share=1

results=build/fuzz/results
rm -rf "$results" build/fuzz/findings && mkdir -p "$results"

run_storm() {
  local folder=build/fuzz/findings/process_storm
  mkdir -p "$folder"
  build/release/fuzz/process_storm build/release/qora-codec \
    build/release/tests/fake_encoders/builds_128_and_142.so 1000000000 "$share" "$folder" \
    >"$results/process_storm.$1" 2>"$folder/log" || true
}

# A fuzzer ends at its first finding: it is started again until its time is over.
run_fuzzer() {
  local name=$1 number=$2 end=$((SECONDS + share)) executions=0 findings=0 left
  local log=build/fuzz/findings/$name/log.$number
  mkdir -p "build/fuzz/corpus/$name" "$(dirname "$log")"
  while left=$((end - SECONDS)) && [[ $left -gt 0 ]]; do
    "build/fuzz/fuzz/fuzz_$name" "build/fuzz/corpus/$name" "fuzz/corpus/$name" \
      -max_total_time="$left" -max_len=2000 -print_final_stats=1 -timeout=20 -rss_limit_mb=4096 -verbosity=0 \
      -artifact_prefix="build/fuzz/findings/$name/" >"$log" 2>&1 || findings=$((findings + 1))
    executions=$((executions + $(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)))
  done
  echo "$name $executions $findings" >"$results/$name.$number"
}

number=0
for job in "${jobs[@]}"; do
  number=$((number + 1))
  while [[ $(jobs -rp | wc -l) -ge $workers ]]; do wait -n || true; done
  if [[ $job == storm ]]; then run_storm "$number" & else run_fuzzer "$job" "$number" & fi
done
wait

cat "$results"/* | awk '
  { runs[$1] += $2; found[$1] += $3; all += $2; bad += $3 }
  END {
    for (name in runs) printf "%-16s %12d %4d\n", name, runs[name], found[name] | "sort"
    close("sort")
    printf "%-16s %12d %4d\n", "all", all, bad
    exit bad > 0
  }'
