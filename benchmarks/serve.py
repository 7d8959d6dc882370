#!/usr/bin/env python3
# SPDX-License-Identifier: BSD-2-Clause
"""Usage: benchmarks/serve.py [BUILD_FOLDER [CHANGES]]

The delay of qora-serve, from a change on one X screen to its pixels in a browser on another: one
clock, real pixels, 1920x1080. Then what ten viewers cost beside one, and what a slow line gets while
a fast one watches. Prints tables for docs/performance.md. Leave the machine alone meanwhile.
"""

import math
import os
import pathlib
import random
import select
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
os.environ["QORA_BUILD"] = sys.argv[1] if len(sys.argv) > 1 else str(ROOT / "build" / "release")
sys.path.insert(0, str(ROOT / "tests" / "browser"))
import Xlib.ext.damage  # noqa: E402
from conftest import Screen, Server, Viewer, eventually  # noqa: E402
from test_browser import Throttle  # noqa: E402

CHANGES = int(sys.argv[2]) if len(sys.argv) > 2 else 200
BOX = (896, 496, 64, 64)  # what changes: as much as a few letters


def changes(shown, arrival):
    """Milliseconds from the call that changes the box to each arrival; inf: it was lost."""
    times, chance = [], random.Random(1)
    for number in range(CHANGES + 10):  # the first ten still wait for the page
        time.sleep(0.06 + chance.random() * 0.06)
        white = (number + 1) % 2
        begun = time.monotonic()
        shown.fill(0xFFFFFF * white, *BOX)
        times.append((arrival(begun, 255 * white) - begun) * 1000)
    return times[10:]


def pixel_of(screen, x, y):
    """Looks when the X server says that something was drawn: looking all the time would take the
    browser's processor."""
    display = screen.display
    display.damage_query_version()
    screen.root.damage_create(Xlib.ext.damage.DamageReportRawRectangles)

    def arrival(begun, wanted):
        while (left := begun + 1 - time.monotonic()) > 0:
            while display.pending_events():
                display.next_event()
            pixel = screen.root.get_image(x, y, 1, 1, Xlib.X.ZPixmap, 0xFFFFFFFF).data[1]
            if abs(pixel - wanted) < 60:
                return time.monotonic()
            if not display.pending_events():
                select.select([display], [], [], left)
        return math.inf
    return arrival


def message_to(viewer, begun):
    eventually(lambda: viewer.times[-1] > begun)
    return next(at for at in viewer.times if at > begun)


def row(what, times):
    at = [sorted(times)[min(CHANGES - 1, int(CHANGES * share))] for share in (0, .5, .9, .99, 1)]
    print("|", what, *(f"| {time:.1f}" for time in at), "|", times.count(math.inf), "|", flush=True)


def browser_on(screen, address):
    flags = ("--no-sandbox --no-first-run --disable-sync --disable-background-networking --kiosk "
             f"--window-size=1920,1130 --window-position=0,0 --user-data-dir={tempfile.mkdtemp()}")
    return subprocess.Popen(["chromium", *flags.split(), address], stdout=subprocess.DEVNULL,
                            stderr=subprocess.DEVNULL, env=os.environ | {"DISPLAY": screen.name})


def delay():
    """One viewer at a time: both would share the processor."""
    shown, watched = Screen(1920, 1080), Screen(1920, 1130)  # the page has a line above the picture
    server = Server(shown)
    print(f"\n| change to, ms (n = {CHANGES}) | min | p50 | p90 | p99 | max | lost |\n|" + "---|" * 7)
    viewer = Viewer(server.socket())
    time.sleep(3)
    row("message in a viewer of our own", changes(shown, lambda at, _: message_to(viewer, at)))
    viewer.connection.close()
    browser = browser_on(watched, server.addresses[0])
    time.sleep(8)
    row("pixels in the browser", changes(shown, pixel_of(watched, 928, 571)))
    browser.terminate()
    browser.wait()
    server.stop()
    shown.close()
    watched.close()


def seconds(pid):
    """Of processor time, of a process and its children, ended or not."""
    ticks = 0
    for task in (pid, *pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()):
        fields = pathlib.Path(f"/proc/{task}/stat").read_text().rsplit(")", 1)[1].split()
        ticks += int(fields[11]) + int(fields[12])
    return ticks / os.sysconf("SC_CLK_TCK")


def cost(count):
    screen = Screen(1920, 1080)
    server = Server(screen)
    viewers = [Viewer(server.socket()) for _ in range(count)]
    time.sleep(2)
    before = seconds(server.process.pid)
    for step in range(500):
        screen.fill(0x123457 * step & 0xFFFFFF, step * 37 % 1800, step * 53 % 1000, 96, 48)
        time.sleep(0.02)
    used = seconds(server.process.pid) - before
    server.stop()
    screen.close()
    return used, viewers[0].frames


def drag(screen, length):
    """A window of text, carried about over a plain desktop."""
    window = screen.root.create_pixmap(480, 320, screen.display.screen().root_depth)
    chance = random.Random(2)
    screen.context.change(foreground=0xFFFFFF)
    window.fill_rectangle(screen.context, 0, 0, 480, 320)
    screen.context.change(foreground=0x202020)
    for y in range(4, 312, 13):
        for x in range(4, 470, 8):
            if chance.random() < 0.85:
                for _ in range(4):
                    window.fill_rectangle(screen.context, x + chance.randrange(5),
                                          y + chance.randrange(8), 1 + chance.randrange(3), 1)
                window.fill_rectangle(screen.context, x + chance.randrange(5), y, 1, 8)
    begun = time.monotonic()
    x = y = 0
    while (at := time.monotonic() - begun) < length:
        screen.fill(0x336699, x, y, 480, 320)
        x, y = int(400 + 380 * ((at / 2) % 2 - 1)), int(200 + 150 * ((at / 3) % 2 - 1))
        screen.root.copy_area(screen.context, window, 0, 0, 480, 320, x, y)
        screen.display.sync()
        time.sleep(0.04)


def slow_line():
    screen = Screen(1280, 720)
    throttle = Throttle(125_000)
    server = Server(screen, "--host", f"127.0.0.1:{throttle.port}")
    throttle.target = server.port
    slow, fast = Viewer(server.socket(port=throttle.port)), Viewer(server.socket())
    screen.fill(0x336699)
    time.sleep(3)
    before = slow.frames, fast.frames
    drag(screen, 10)
    ended = time.monotonic()
    moving = (slow.frames - before[0]) / 10, (fast.frames - before[1]) / 10
    eventually(lambda: slow.is_idle(1.5))
    print(f"\nA line of 1 Mbit/s beside a free one, 10 s of motion: {moving[0]:.1f} and {moving[1]:.1f} "
          f"frames a second, {slow.bytes // 1000} and {fast.bytes // 1000} KB; the slow one's last "
          f"sharpening came {max(0, slow.times[-1] - ended):.1f} s after the motion ended.")
    server.stop()
    screen.close()


if __name__ == "__main__":
    delay()
    one, ten = cost(1), cost(10)
    print(f"\nProcessor seconds of server and service over 10 s of drawing: one viewer {one[0]:.2f}, ten "
          f"{ten[0]:.2f}: {ten[0] / one[0]:.2f} times ({one[1]:.0f} and {ten[1]:.0f} frames).")
    slow_line()
    os._exit(0)  # the throttle's threads wait for ever
