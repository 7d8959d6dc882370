#!/usr/bin/env python3
# SPDX-License-Identifier: BSD-2-Clause
"""Usage: benchmarks/rate.py
Holds a stream to simulated links and rewrites that section of docs/performance.md, with its plot.
Builds and films what it needs; the ticks are then in build/benchmarks/rate.csv. Takes some minutes.
The figures do not depend on how busy the machine is, but for the time of a plan."""
import csv
import itertools
import os
import re
import statistics
import subprocess

os.chdir(os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
WORK, REPORT = "build/benchmarks", "docs/performance.md"
TICK, SECOND = 40, 25  # milliseconds, ticks


def run_all():
    subprocess.run(["scripts/build.sh", "release", "tests", "live", "benchmarks"], check=True)
    os.makedirs(WORK, exist_ok=True)
    subprocess.run(["benchmarks/record_clips.sh", f"{WORK}/clips"], check=True)
    with open(f"{WORK}/rate.csv", "w") as output:
        subprocess.run(["build/release/benchmarks/bench_rate", f"{WORK}/clips"], stdout=output,
                       stderr=subprocess.DEVNULL, check=True)


class Run:
    def __init__(self, rows):
        self.begin, self.end = int(rows[0][3]), int(rows[0][4])
        columns = list(zip(*[[float(value) for value in row[6:]] for row in rows]))
        self.changed, self.bytes, self.queue, self.psnr, self.worst, self.cost = columns
        self.sent = [at for at, size in enumerate(self.bytes) if size > 0]

    def time_until(self, worst):  # no cell is coarser, and all of it through the link
        for at in self.sent:
            if at >= self.begin and self.worst[at] <= worst:
                return (at - self.begin) * TICK + self.queue[at]
        return float("inf")

    def row(self):
        queues = sorted(self.queue[at] for at in self.sent if at >= self.begin)
        motion = statistics.mean(self.psnr[self.begin:self.end])
        return (f"{sum(at >= self.begin for at in self.sent)} | {sum(self.bytes) / 1000:.0f} | "
                f"{queues[len(queues) * 99 // 100]:.0f} | {motion:.1f} | {self.psnr[self.end + SECOND]:.1f}")


def gates(runs):
    """What, measured, at most, unit."""
    def of(clip, link):
        return runs[clip, "by region", link]

    pages = {("text", 4000): (500, 800, 900), ("text", 1000): (1600, 2400, 2500),
             ("full text", 4000): (None,) * 3, ("photograph", 4000): (None, 1800, None),
             ("grain", 4000): (None, 2500, None), ("coarse grain", 4000): (None,) * 3}
    for link, limit in ((1000, 250), (4000, 150), (16000, 150)):
        run = of("scenes", link)
        firsts = [min(at for at in run.sent if at >= cut) for cut in range(0, run.end, 50)]
        yield (f"scene change, {link // 1000} Mbit/s: first frame through the link",
               max(run.queue[at] for at in firsts), limit, "ms")
    for (clip, link), limits in pages.items():
        run, once = of(clip, link), sum(of(clip, 0).bytes)
        name = f"{clip}, {link // 1000} Mbit/s"
        yield f"{name}: no cell coarser than 24", run.time_until(24), limits[0], "ms"
        yield f"{name}: all at 8", run.time_until(8), limits[1], "ms"
        yield f"{name}: silent", (run.sent[-1] - run.begin) * TICK, limits[2], "ms"
        yield f"{name}: bytes until then, times coding once at 8", sum(run.bytes) / once, 1.25, ""
        yield f"{name}: the link's time for coding it once at 8", once * 8 / link, None, "ms"
        if link == 4000:
            yield (f"{name}: queue that sharpening causes",
                   max(run.queue[at] for at in run.sent if not run.changed[at]), 60, "ms")
    yield "still screen after that: frames in 3 s", sum(
        at > of("dragging", 4000).end + 2 * SECOND for at in of("dragging", 4000).sent), 0, ""
    for clip, link in itertools.product(("scrolling", "dragging", "video"), (-16000, -4000)):
        run = of(clip, link)
        fall = (run.begin + run.end) // 2
        late = [at - fall + 1 for at in range(fall, run.end) if run.queue[at] > 150]
        yield (f"{clip}, {-link // 1000} to {-link // 4000} Mbit/s: until the queue is at most 150 ms",
               max(late, default=0), 1 if link == -16000 else 8, "ticks")
    run = of("typing", 500)
    typed = [at for at in run.sent if at >= run.begin]
    yield "typing, 0.5 Mbit/s: coarsest offset", max(run.worst[run.begin:]), 8, ""
    yield "typing, 0.5 Mbit/s: median queue", statistics.median(run.queue[at] for at in typed), 10, "ms"
    yield "typing, 0.5 Mbit/s: longest queue", max(run.queue[at] for at in typed), None, "ms"
    yield "typing: median time of a plan", statistics.median(run.cost[at] for at in typed), 20, "us"
    costs = [of("scenes", 16000).cost[at] for at in range(0, 300, 50)]
    yield "all of 1920x1080 changed: median time of a plan", statistics.median(costs), 1500, "us"


def section(runs):
    yield "| what | measured | at most | |\n|---|---|---|---|"
    for what, value, limit, unit in gates(runs):
        verdict = "" if limit is None else "pass" if value <= limit else "FAIL"
        yield f"| {what} | {value:.4g} {unit} | {'' if limit is None else limit} | {verdict} |"
    yield ("\n| clip | Mbit/s | rate control | frames | kB | queue p99, ms | PSNR in motion | 1 s after |\n"
           "|---|---|---|---|---|---|---|---|")
    for (clip, mode, link), run in runs.items():
        if (clip, "bitrate mode", link) in runs:
            rate = f"{link // 1000}" if link > 0 else f"{-link // 1000} to {-link // 4000}"
            yield f"| {clip} | {rate} | {mode} | {run.row()} |"
    yield "\n![Queue and PSNR of the scenes over a link that falls to a quarter](images/rate.png)"


def draw(runs):
    modes = ("by region", "bitrate mode", "bitrate mode (whole pictures)")
    drawn = [runs["scenes", mode, -4000] for mode in modes]
    with open(f"{WORK}/rate.dat", "w") as data:
        for at in range(len(drawn[0].queue)):
            data.write(" ".join(f"{value}" for run in drawn for value in (run.queue[at], run.psnr[at])) + "\n")
    plots = [", ".join(f"'{WORK}/rate.dat' using ($0/25):{2 * i + column} with lines title '{mode}'"
                       for i, mode in enumerate(modes)) for column in (1, 2)]
    subprocess.run(["gnuplot"], text=True, check=True, input=(
        "set terminal pngcairo size 900,560; set output 'docs/images/rate.png'; set grid\n"
        "set multiplot layout 2,1; set logscale y; set ylabel 'queue, ms'; set yrange [1:*]\n"
        f"plot {plots[0]}\nunset logscale; set yrange [*:*]; set ylabel 'PSNR, dB'; set xlabel 's'\n"
        f"set key bottom\nplot {plots[1]}\n"))


run_all()
with open(f"{WORK}/rate.csv") as lines:
    ticks = itertools.groupby(csv.reader(lines), lambda row: (row[0], row[1], int(row[2])))
    by_run = {key: Run(list(rows)) for key, rows in ticks}
draw(by_run)
text = "\n".join(section(by_run))
print(text)
with open(REPORT) as file:
    report = file.read()
with open(REPORT, "w") as file:
    file.write(re.sub(r"(<!-- rate.py writes.*?-->\n).*?(<!-- end of rate.py -->)",
                      lambda match: match[1] + text + "\n" + match[2], report, flags=re.S))
