#!/usr/bin/env python3
"""Eight streams of 640x360 with the real encoder for as long as the budget says: memory,
descriptors and mappings must stay.

The first third of the time replaces streams and the segment between the frames, all the while; now
and then every stream is removed, and the empty service must hold as many blocks as ever. The rest
is the long run: eight streams that stay, whose memory has its slope taken by least squares.
Writes soak.csv and soak.png into the logs' folder.
"""

import os
import random
import shutil
import subprocess
import time

import harness
from harness import (Counts, Segment, Service, add, attach, attached, copy, detach, encode, planes,
                     rectangle, remove)

WIDTH, HEIGHT, STREAMS = 640, 360, 8
BYTES = WIDTH * HEIGHT * 3 // 2
CYCLES = 6      # of each kind for a second of the budget, 10,000 in all
CYCLING = 1 / 3 # of the time
RESTS = 20      # looks at the empty service
FRAMES = 100    # a second, over all streams: the other core is for other steps
SLOPE = 1.0     # MiB an hour, once the long run has had its warm-up
WARM_UP = 30    # seconds
SETTLED = 300   # seconds of measurement from which on the slope says something

PLOT = """
set terminal png size 1200,700
set output 'soak.png'
set datafile separator ','
set title 'resident memory of the service, 8 streams'
set xlabel 'seconds'
set ylabel 'KiB'
set y2label 'descriptors, mappings'
set y2tics
set yrange [0:*]
set y2range [0:*]
plot 'soak.csv' using 1:2 with lines title 'resident', \\
     '' using 1:3 axes x1y2 with lines title 'descriptors', \\
     '' using 1:4 axes x1y2 with lines title 'mappings'
"""


def add_stream(stream):
    """Odd streams have a bitrate: both kinds of rate control run."""
    return add(stream, WIDTH, HEIGHT, bitrate=stream % 2 * 800, qp=(10, 45))


def picture(chance, view, stream):
    """Moves a block of new noise into the stream's picture; the rectangle that it changed."""
    x, y = chance.randrange(0, WIDTH - 64), chance.randrange(0, HEIGHT - 32)
    line = chance.randbytes(64)
    for row in range(y, y + 32):
        start = stream * BYTES + row * WIDTH + x
        view[start:start + 64] = line
    return rectangle(x, y, 64, 32, chance.randrange(-8, 8))


def frame(chance, view, stream, first):
    copies = b""
    if chance.random() < 0.3 and not first:
        at = lambda: (chance.randrange(2, WIDTH - 102), chance.randrange(2, HEIGHT - 102))
        copies = copy(at(), at(), 100, 100)
    return encode(stream, picture(chance, view, stream), copies,
                  layout=planes(WIDTH, HEIGHT, stream * BYTES), invalidate=chance.random() < 0.01)


def measure(pid):
    """Resident KiB, descriptors, mappings."""
    with open(f"/proc/{pid}/statm") as statm:
        resident = int(statm.read().split()[1]) * 4
    with open(f"/proc/{pid}/maps") as maps:
        return resident, len(os.listdir(f"/proc/{pid}/fd")), sum(1 for _ in maps)


class Soak:
    def __init__(self, build, segment, view, seconds):
        self.counts = None if build.sanitized else Counts()
        self.service = Service(build, root=build.real, preload=bool(self.counts), environment={
            "FAULT_COUNT": self.counts.path if self.counts else None})
        self.segment, self.view, self.seconds = segment, view, seconds
        self.chance = random.Random(1)
        for stream in range(STREAMS):
            self.view[stream * BYTES:(stream + 1) * BYTES] = self.chance.randbytes(BYTES)
        self.frames = self.stream_cycles = self.segment_cycles = 0
        self.cycles = min(int(CYCLES * seconds), 10000)
        self.samples, self.rests = [], []
        self.fresh = set(range(STREAMS))  # no frame since the addition
        self.service.send(attach(segment) + b"".join(map(add_stream, range(STREAMS))))

    def replace(self, streams):
        self.service.send(b"".join(remove(stream) + add_stream(stream) for stream in streams))
        self.fresh.update(streams)
        self.stream_cycles += len(streams)

    def rest(self):
        """Counts the empty service's blocks."""
        self.service.send(b"".join(map(remove, range(STREAMS))))
        self.service.settle()
        time.sleep(0.2)
        self.rests.append(self.counts.now()[1])
        self.service.send(b"".join(map(add_stream, range(STREAMS))))
        self.fresh.update(range(STREAMS))
        self.stream_cycles += STREAMS

    def cycle(self, share):
        """As many cycles as belong to the share of their time that has gone."""
        due = int(min(share, 1) * self.cycles)
        while self.stream_cycles < due:
            self.replace([self.stream_cycles % STREAMS])
        while self.segment_cycles < due:
            self.service.send(detach(self.segment) + attach(self.segment))
            self.segment_cycles += 1
        if self.counts and len(self.rests) < int(min(share, 1) * RESTS):
            self.rest()

    def encode_all(self):
        for stream in range(STREAMS):
            self.service.send(frame(self.chance, self.view, stream, stream in self.fresh))
            self.fresh.discard(stream)
            if len(self.service.reply()) <= 20:
                return False
            self.frames += 1
        return True

    def run(self):
        """False when a frame was not answered."""
        begun, sampled = time.monotonic(), -1.0
        while True:
            gone = time.monotonic() - begun
            if gone >= self.seconds and self.segment_cycles >= self.cycles:
                return True
            self.cycle(gone / self.seconds / CYCLING)
            if not self.encode_all():
                return False
            if gone - sampled >= self.seconds / 1800:
                self.samples.append((gone, *measure(self.service.pid)))
                sampled = gone
            ahead = begun + self.frames / FRAMES - time.monotonic()
            if ahead > 0:
                time.sleep(ahead)


def slope(samples):
    """KiB a second, by least squares."""
    count = len(samples)
    middle = sum(sample[0] for sample in samples) / count
    level = sum(sample[1] for sample in samples) / count
    spread = sum((sample[0] - middle) ** 2 for sample in samples)
    return sum((sample[0] - middle) * (sample[1] - level) for sample in samples) / spread


def judge(report, soak):
    if soak.rests:
        report.check(len(set(soak.rests)) == 1, f"blocks of the empty service: {soak.rests}")
        report.note(f"{soak.rests[-1]} blocks in the empty service, {len(soak.rests)} times")
    steady = [one for one in soak.samples if one[0] >= soak.seconds * CYCLING + WARM_UP]
    if len(steady) < 2 or steady[-1][0] - steady[0][0] < SETTLED:
        return
    hourly = slope(steady) * 3600 / 1024
    report.check(hourly <= SLOPE, f"resident memory grows by {hourly:.2f} MiB an hour")
    for column, name in ((2, "descriptors"), (3, "mappings")):
        values = {sample[column] for sample in steady}
        report.check(len(values) == 1, f"{name} changed: {sorted(values)}")
    report.note(f"{hourly:+.2f} MiB an hour over {steady[-1][0] - steady[0][0]:.0f} s, "
                f"{steady[-1][1] / 1024:.1f} MiB, {steady[-1][2]} descriptors, "
                f"{steady[-1][3]} mappings")


def plot(logs, samples):
    with open(logs / "soak.csv", "w") as table:
        for sample in samples:
            print(f"{sample[0]:.1f},{sample[1]},{sample[2]},{sample[3]}", file=table)
    if shutil.which("gnuplot"):
        subprocess.run(["gnuplot"], input=PLOT.encode(), cwd=logs, check=True)


def main():
    options = harness.arguments(__doc__)
    report = harness.Report(options)
    with Segment(STREAMS * BYTES) as segment:
        view = segment.map()
        soak = Soak(options.build, segment.id, view, options.seconds)
        report.check(soak.run(), "a frame was not answered")
        ending = soak.service.finish()
        # The encoder library says so once for each stream with a bitrate.
        strange = [line for line in ending.lines if "tolerance" not in line]
        report.check(ending.status == 0 and not strange,
                     lambda: f"status {ending.status}, {strange[:5]}")
        report.check(attached(segment.id) == 1, "the service's attachment is left")
    report.check(soak.stream_cycles >= soak.cycles and soak.segment_cycles >= soak.cycles,
                 f"only {soak.stream_cycles} and {soak.segment_cycles} cycles")
    judge(report, soak)
    plot(options.logs, soak.samples)
    report.note(f"{soak.frames} frames, {soak.stream_cycles} stream and "
                f"{soak.segment_cycles} segment cycles")
    report.tried += soak.frames + soak.stream_cycles + soak.segment_cycles
    report.end()


if __name__ == "__main__":
    main()
