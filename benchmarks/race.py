#!/usr/bin/env python3
# SPDX-License-Identifier: BSD-2-Clause
"""The race of the service with other encoders over clips, from the project's root.

Usage: benchmarks/race.py WORK ROUNDS CLIP...
Runs every program ROUNDS times over each WORK/clips/CLIP.y4m, in turn. Writes WORK/race.csv (a row a
run), WORK/medians.csv and WORK/race.md (a row a clip and program), and prints the verdicts.

Every program is measured from outside, in the same way: the clip comes through its standard input.
The pipe holds less than a picture, so an encoder takes the last bytes of one only after it is done
with the one before: the times between those are its times a frame. The pipe is given the file's own
pages, so that filling it takes no CPU from the encoder. Memory is the highest of the program and its
children together, shared pictures counted once.
"""

import os
import pathlib
import re
import statistics
import subprocess
import sys
import time

KBPS, QP_MIN = 6000, 10
SERVICE = f"build/release/qora-encode - -o OUT --threads 1 --bitrate {KBPS} --qp-min {QP_MIN} --quiet"
RACERS = {  # one set of settings in each program's own words
    "service": ("service, every picture", SERVICE),
    "skipping": ("service, unchanged skipped", SERVICE + " --skip-unchanged"),
    "in-process": ("in-process (the floor)", f"build/release/benchmarks/bench_floor - OUT {KBPS} {QP_MIN}"),
    "x264": ("x264 program", "x264 --quiet --no-progress --demuxer y4m --preset ultrafast "
             "--tune zerolatency --profile baseline --keyint infinite --no-scenecut --aq-mode 1 "
             f"--threads 1 --bitrate {KBPS} --ratetol 0.01 --qpmin {QP_MIN} --qpmax 51 -o OUT -"),
    "ffmpeg": ("ffmpeg, libx264", "ffmpeg -loglevel error -f yuv4mpegpipe -i pipe:0 -y -c:v libx264 "
               f"-preset ultrafast -tune zerolatency -profile:v baseline -b:v {KBPS}k -x264-params "
               "keyint=infinite:scenecut=0:aq-mode=1:threads=1:ratetol=0.01:"
               f"qpmin={QP_MIN}:qpmax=51 -f h264 OUT"),
}


def memory(process):
    """KiB of a process and its children: the sum of their own, the largest of what they share."""
    status = pathlib.Path(f"/proc/{process}/status").read_text()
    peak, shared = (int(re.search(rf"{name}:\s*(\d+)", status)[1]) for name in ("VmHWM", "RssShmem"))
    own, children = peak - shared, f"/proc/{process}/task/{process}/children"
    for child in map(memory, pathlib.Path(children).read_text().split()):
        own, shared = own + child[0], max(shared, child[1])
    return own, shared


def run(work, clip, racer):
    """Frames a second, p50 and p99 milliseconds, CPU seconds, MiB, bytes."""
    output, times, at = f"{work}/{racer}.264", [], 0
    with open(f"{work}/clips/{clip}.y4m", "rb") as file, open(f"{work}/race.log", "a") as log:
        header = file.readline()
        width, height = (int(re.search(tag + rb"(\d+)", header)[1]) for tag in (b" W", b" H"))
        picture = len(b"FRAME\n") + width * height * 3 // 2
        begin = last = time.perf_counter()
        child = subprocess.Popen(RACERS[racer][1].replace("OUT", output).split(), stdout=log,
                                 stderr=log, stdin=subprocess.PIPE, pipesize=1 << 20)
        for end in range(len(header) + picture, os.path.getsize(file.name) + 1, picture):
            while at < end:
                at += os.splice(file.fileno(), child.stdin.fileno(), end - at, at)
            now = time.perf_counter()
            times.append((now - last) * 1000)
            last = now
    held = sum(memory(child.pid)) / 1024
    child.stdin.close()
    _, status, usage = os.wait4(child.pid, 0)
    seconds = time.perf_counter() - begin
    if status != 0:
        sys.exit(f"race: {racer} failed, see {work}/race.log")
    times.sort()
    return [len(times) / seconds, times[len(times) // 2], times[len(times) * 99 // 100],
            usage.ru_utime + usage.ru_stime, held, os.path.getsize(output)]


def verdicts(clip, runs):
    """Medians of the ratios within a round: a machine that slows down does so for all programs."""
    for racer, what in (("service", "every picture"), ("skipping", "unchanged skipped")):
        for other, name in (("x264", "the x264 program"), ("ffmpeg", "ffmpeg")):
            limit = {"x264": 1.5, "ffmpeg": 4}[other] if (racer, clip) == ("skipping", "typing") else 1
            value = statistics.median(ours[0] / theirs[0] for ours, theirs
                                      in zip(runs[clip, racer], runs[clip, other]))
            print(f"{f'{clip}: frames a second, {what}, times {name}':<78} {value:8.3f}        "
                  f"at least {limit:<5g} {'pass' if value >= limit else 'FAIL'}")


def main():
    work, rounds, clips = sys.argv[1], int(sys.argv[2]), sys.argv[3:]
    runs = {(clip, racer): [] for clip in clips for racer in RACERS}
    with open(f"{work}/race.csv", "w") as rows:
        for _ in range(rounds):
            for clip, racer in runs:
                runs[clip, racer].append(run(work, clip, racer))
                print(clip, racer, *runs[clip, racer][-1], sep=",", file=rows)
    medians = {key: list(map(statistics.median, zip(*values))) for key, values in runs.items()}
    with open(f"{work}/medians.csv", "w") as rows, open(f"{work}/race.md", "w") as table:
        table.write("| clip | encoder | frames/s | p50 ms | p99 ms | CPU s | kB | MiB | speed, times "
                    "the floor |\n|---|---|---|---|---|---|---|---|---|\n")
        for (clip, racer), (fps, p50, p99, cpu, mib, size) in medians.items():
            print(clip, racer, fps, p50, p99, cpu, mib, size, sep=",", file=rows)
            table.write(f"| {clip} | {RACERS[racer][0]} | {fps:.1f} | {p50:.2f} | {p99:.2f} | {cpu:.2f} "
                        f"| {size / 1000:.0f} | {mib:.0f} | {fps / medians[clip, 'in-process'][0]:.2f} |\n")
    for clip in sorted(clips):
        verdicts(clip, runs)


if __name__ == "__main__":
    main()
