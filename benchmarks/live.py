#!/usr/bin/env python3
# SPDX-License-Identifier: BSD-2-Clause
"""Usage: benchmarks/live.py SCENE SERVER SECONDS ROUNDS

Records what goes on on $DISPLAY, whose X server is process SERVER, by several programs in turn, and
prints a row for each: processor seconds a minute, times those of ffmpeg, kbit/s, those after the first
picture, and in the typing scene how long a change takes from the screen to its access unit.
"""

import ctypes
import os
import pathlib
import random
import resource
import signal
import statistics
import struct
import subprocess
import sys
import tempfile
import threading
import time

SCENE, SERVER, SECONDS, ROUNDS = sys.argv[1], int(sys.argv[2]), float(sys.argv[3]), int(sys.argv[4])
BUILD = pathlib.Path(os.environ.get("QORA_BUILD", "build/release"))
QORA = f"{BUILD}/qora-record --quiet --fps 25 --key-interval 0 --threads 1 -o"
PROGRAMS = {  # a command that writes to the file it ends with
    "ffmpeg": f"ffmpeg -nostdin -v quiet -y -f x11grab -framerate 25 -video_size 1920x1080 -i "
              f"{os.environ['DISPLAY']} -pix_fmt yuv420p -c:v libx264 -preset ultrafast -tune "
              "zerolatency -profile:v baseline -x264-params "
              "keyint=infinite:scenecut=0:aq-mode=1:threads=1:crf=8 -flush_packets 1 -f h264",
    "qora-record": QORA,
    "qora-record, moves": QORA,
}
SUFFIX = {"qora-record, moves": ""}  # others: ".264"
BLOCKS, SIDE, TOP = 16, 16, 1064     # the clock: a number in black and white blocks


def server_seconds():
    fields = pathlib.Path(f"/proc/{SERVER}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def children_seconds():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


class Clock(threading.Thread):
    """Draws rising numbers at moments that nobody can foresee, and notes when."""

    def __init__(self):
        super().__init__()
        self.drawn, self.over = {}, False
        self.x = ctypes.CDLL("libX11.so.6")
        self.x.XOpenDisplay.restype = ctypes.c_void_p
        self.display = ctypes.c_void_p(self.x.XOpenDisplay(None))
        root = self.x.XDefaultRootWindow(self.display)
        self.window = self.x.XCreateSimpleWindow(self.display, root, 0, TOP, BLOCKS * SIDE, SIDE, 0,
                                                 0, 0)
        # Attribute 9 of XSetWindowAttributes, override-redirect: no window manager moves it.
        attributes = (ctypes.c_int * 28)(*[0] * 22, 1)
        self.x.XChangeWindowAttributes(self.display, self.window, 1 << 9, attributes)
        self.x.XMapRaised(self.display, self.window)
        self.x.XCreateGC.restype = ctypes.c_void_p
        self.gc = ctypes.c_void_p(self.x.XCreateGC(self.display, self.window, 0, None))
        self.x.XSync(self.display, 0)

    def run(self):
        for number in range(1, 1 << BLOCKS):
            time.sleep(random.uniform(0.08, 0.2))
            for block in range(BLOCKS):
                self.x.XSetForeground(self.display, self.gc, 0xffffff if number >> block & 1 else 0)
                self.x.XFillRectangle(self.display, self.window, self.gc, block * SIDE, 0, SIDE, SIDE)
            self.drawn[number] = time.monotonic()
            self.x.XFlush(self.display)
            if self.over:
                self.x.XCloseDisplay(self.display)
                return


def access_unit_ends(data):
    """Where each access unit ends: before the next one's first byte."""
    starts, fresh, at = [], True, data.find(b"\0\0\1")
    while at != -1:
        kind, begin = data[at + 3] & 31, at - (data[at - 1] == 0)
        if fresh:
            starts.append(begin)
            fresh = False
        following = data.find(b"\0\0\1", at + 3)
        # Each picture has one slice; what follows it belongs to the next.
        fresh = kind in (1, 5)
        at = following
    return starts[1:] + [len(data)]


def first_size(name, data):
    """Bytes of the first picture: of the screen as it stood, not of what goes on there."""
    if SUFFIX.get(name) == "":
        return 32 + 32 + struct.unpack_from("<I", data, 32 + 20)[0]
    return access_unit_ends(data[:4 << 20])[0]


def latencies(data, arrivals, drawn, folder):
    (folder / "clip.264").write_bytes(data)
    seen = subprocess.run(
        ["ffmpeg", "-v", "quiet", "-i", folder / "clip.264", "-fps_mode", "passthrough", "-vf",
         f"crop={BLOCKS * SIDE}:{SIDE}:0:{TOP},scale={BLOCKS}:1:flags=area,format=gray", "-f",
         "rawvideo", "-"], stdout=subprocess.PIPE, check=True).stdout
    shown, found = set(), []
    for index, end in enumerate(access_unit_ends(data)):
        bits = seen[index * BLOCKS:(index + 1) * BLOCKS]
        number = sum(1 << bit for bit, value in enumerate(bits) if value > 128)
        if number in drawn and number not in shown:
            shown.add(number)
            found.append(next(when for count, when in arrivals if count >= end) - drawn[number])
    return sorted(found)


def record(name, clock=None):
    """Processor seconds, bytes with and without the first picture, and latencies."""
    folder = pathlib.Path(tempfile.mkdtemp(dir=os.environ.get("TMPDIR")))
    pipe = folder / ("pipe" + SUFFIX.get(name, ".264"))
    os.mkfifo(pipe)
    before, server = children_seconds(), server_seconds()
    process = subprocess.Popen([*PROGRAMS[name].split(), pipe])
    timer = threading.Timer(SECONDS, process.send_signal, [signal.SIGTERM])
    timer.start()
    data, arrivals = bytearray(), []
    with open(pipe, "rb", buffering=0) as reader:
        while chunk := reader.read(1 << 20):
            data += chunk
            arrivals.append((len(data), time.monotonic()))
    process.wait()
    used = children_seconds() - before, server_seconds() - server
    found = latencies(bytes(data), arrivals, clock.drawn, folder) if clock else []
    return used, (len(data), len(data) - first_size(name, data)), found


def main():
    before = server_seconds()
    time.sleep(SECONDS)
    unwatched = server_seconds() - before
    rounds = {name: [] for name in PROGRAMS}
    for _ in range(ROUNDS):
        for name in PROGRAMS:
            (own, server), sizes, _ = record(name)
            rounds[name].append((own + max(server - unwatched, 0), *sizes))
    minute = 60 / SECONDS
    for name, runs in rounds.items():
        ratio = statistics.median(run[0] / first[0] for run, first in zip(runs, rounds["ffmpeg"]))
        used, size, later = (statistics.median(column) for column in zip(*runs))
        line = (f"{SCENE:10} {name:20} {used * minute:7.2f} s/min {ratio:6.3f} "
                f"{size * 8 / 1000 / SECONDS:9.1f} kbit/s {later * 8 / 1000 / SECONDS:9.1f} later")
        if SCENE == "typing" and name in ("ffmpeg", "qora-record"):
            clock = Clock()
            clock.start()
            found = record(name, clock)[2]
            clock.over = True
            clock.join()
            line += "  latency p50 {:.1f} p99 {:.1f} ms of {}".format(
                found[len(found) // 2] * 1000, found[len(found) * 99 // 100] * 1000, len(found))
        print(line, flush=True)


main()
