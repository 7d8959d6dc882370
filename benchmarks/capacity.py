#!/usr/bin/env python3
# SPDX-License-Identifier: BSD-2-Clause
"""Usage: benchmarks/capacity.py [DESKTOPS...]

How many desktops of 1920x1080 one processor records, recorders and services together, while on each
somebody types six letters a second. The X servers and this program have the other processors. Prints
a row for each number: how long a letter takes to its access unit, the processor's share that was in
use, and the memory of a session. Leave the machine alone meanwhile.
"""

import os
import pathlib
import random
import select
import statistics
import subprocess
import sys
import time

import Xlib.display

BUILD = pathlib.Path(os.environ.get("QORA_BUILD", "build/release"))
SECONDS, LETTERS = 15, 6
RECORDING = 0  # the processor
LATE = 0.04


class Desktop:
    def __init__(self):
        self.server = subprocess.Popen(["Xvfb", "-displayfd", "1", "-screen", "0", "1920x1080x24", "-noreset"],
                                       stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        name = ":" + self.server.stdout.readline().decode().strip()
        self.display = Xlib.display.Display(name)
        screen = self.display.screen()
        self.window = screen.root.create_window(0, 0, 1920, 1080, 0, screen.root_depth,
                                                background_pixel=0xFFFFFF)
        self.gc = self.window.create_gc(font=self.display.open_font("fixed"), foreground=0, background=0xFFFFFF)
        self.window.map()
        for line in range(80):  # a page of text
            self.window.draw_text(self.gc, 8, 13 * line, bytes(random.choices(range(97, 123), k=250)))
        self.display.sync()
        self.recorder = subprocess.Popen(
            ["taskset", "-c", str(RECORDING), BUILD / "qora-record", "--quiet", "--display", name, "--fps", "25",
             "--key-interval", "0", "--threads", "1", "--cursor", "off", "-o", "-"], stdout=subprocess.PIPE)
        os.set_blocking(self.recorder.stdout.fileno(), False)
        self.next, self.drawn, self.at = 0, None, 0

    def type(self, now):
        self.window.image_text(self.gc, 203 + 6 * (self.at % 100), 520, bytes([97 + self.at % 26]))
        self.display.flush()
        self.at += 1
        self.drawn, self.next = now, now + random.uniform(0.5, 1.5) / LETTERS

    def memory(self):
        """MiB that recorder and service add to what others have as well."""
        own = self.recorder.pid
        service = pathlib.Path(f"/proc/{own}/task/{own}/children").read_text().split()
        sizes = [next(int(line.split()[1]) for line in open(f"/proc/{pid}/smaps_rollup") if line.startswith("Pss:"))
                 for pid in (own, *service)]
        return sum(sizes) / 1024

    def close(self):
        self.recorder.terminate()
        self.recorder.wait()
        self.server.kill()
        self.server.wait()


def busy():
    """Of the recording processor: jiffies in use, and all."""
    fields = next(line for line in open("/proc/stat") if line.startswith(f"cpu{RECORDING} ")).split()[1:9]
    ticks = [int(field) for field in fields]
    return sum(ticks) - ticks[3] - ticks[4], sum(ticks)


def measure(count):
    desktops = [Desktop() for _ in range(count)]
    poll = select.poll()
    by_descriptor = {desktop.recorder.stdout.fileno(): desktop for desktop in desktops}
    for descriptor in by_descriptor:
        poll.register(descriptor, select.POLLIN)
    begun = time.monotonic() + 3 + count * 0.2  # first the first pictures
    for desktop in desktops:
        desktop.next = begun + random.uniform(0, 1 / LETTERS)
    found, before = [], None
    while (now := time.monotonic()) < begun + SECONDS:
        if before is None and now > begun:
            before = busy()
        due = max(min(desktop.next for desktop in desktops), now + 0.001)
        for descriptor, _ in poll.poll(max(0, due - now) * 1000):
            desktop = by_descriptor[descriptor]
            while desktop.recorder.stdout.read(1 << 16):
                pass
            if desktop.drawn is not None:
                found.append(time.monotonic() - desktop.drawn)
                desktop.drawn = None
        for desktop in desktops:
            if desktop.next <= time.monotonic() < begun + SECONDS - 0.5:
                desktop.type(time.monotonic())
    used, total = (after - then for after, then in zip(busy(), before))
    memory = statistics.median(desktop.memory() for desktop in desktops)
    typed = sum(desktop.at for desktop in desktops)
    for desktop in desktops:
        desktop.close()
    found.sort()
    late = sum(time > LATE for time in found) + typed - len(found)
    print(f"| {count} | {100 * used / total:.0f} % | {1000 * statistics.median(found):.1f} | "
          f"{1000 * found[len(found) * 99 // 100]:.1f} | {100 * late / typed:.2f} % | {memory:.1f} |", flush=True)


os.sched_setaffinity(0, set(range(os.cpu_count())) - {RECORDING})
print("| desktops | of the processor | p50, ms | p99, ms | later than 40 ms | MiB a session |\n|" + "---|" * 6)
for number in [int(word) for word in sys.argv[1:]] or [1, 8, 16, 24, 32]:
    measure(number)
