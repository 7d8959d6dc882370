#!/usr/bin/env python3
# SPDX-License-Identifier: BSD-2-Clause
"""Usage: benchmarks/serve.py [BUILD_FOLDER [CHANGES]]

The delay of qora-serve, from a change on one X screen to its pixels in a browser on another: one
clock, real pixels, 1920x1080. Then what ten viewers cost beside one, and what a slow line gets while
a fast one watches. Prints tables for docs/performance.md. Leave the machine alone meanwhile.
"""

import os
import pathlib
import random
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
os.environ["QORA_BUILD"] = sys.argv[1] if len(sys.argv) > 1 else str(ROOT / "build" / "release")
sys.path.insert(0, str(ROOT / "tests" / "browser"))
from conftest import Screen, Server, Viewer, Xlib  # noqa: E402
from test_browser import Throttle  # noqa: E402

CHANGES = int(sys.argv[2]) if len(sys.argv) > 2 else 200
BOX = (896, 496, 64, 64)  # what changes: as much as a few letters



def pixel(screen, x, y):
    return screen.root.get_image(x, y, 1, 1, Xlib.X.ZPixmap, 0xFFFFFFFF).data[1]


def milliseconds(times):
    times = sorted(times)
    at = lambda share: times[min(len(times) - 1, int(len(times) * share))]
    return f"{times[0]:.1f} | {at(.5):.1f} | {at(.9):.1f} | {at(.99):.1f} | {times[-1]:.1f}"


def browser_on(screen, address):
    return subprocess.Popen(
        ["chromium", "--no-sandbox", "--disable-quic", "--no-first-run", "--disable-sync",
         "--disable-background-networking", "--disable-component-update", "--kiosk",
         "--window-size=1920,1130", "--window-position=0,0",
         f"--user-data-dir={tempfile.mkdtemp()}", address],
        env=os.environ | {"DISPLAY": screen.name}, stdout=subprocess.DEVNULL,
        stderr=subprocess.DEVNULL)


def delay():
    shown, watched = Screen(1920, 1080), Screen(1920, 1130)  # the page has a line above the picture
    server = Server(shown)
    browser = browser_on(watched, server.addresses[0])
    viewer = Viewer(server.socket())
    time.sleep(8)
    pixels, arrivals, lost, chance = [], [], 0, random.Random(1)
    for number in range(CHANGES + 10):
        wanted = 255 * (number % 2)
        time.sleep(0.06 + chance.random() * 0.06)
        shown.fill(0xFFFFFF * (number % 2), *BOX)
        begun = time.monotonic()
        while abs(pixel(watched, 928, 571) - wanted) > 60:
            if time.monotonic() - begun > 1:
                lost += 1
                break
            time.sleep(0.001)  # asking all the time would take the browser's processor
        if number >= 10:  # the first ones still wait for the page
            pixels.append((time.monotonic() - begun) * 1000)
            arrivals.append((min(at for at in viewer.times if at > begun) - begun) * 1000)
    print(f"\n| change to, ms (n = {CHANGES}, {lost} lost) | min | p50 | p90 | p99 | max |\n"
          "|---|---|---|---|---|---|")
    print(f"| message in a viewer of our own | {milliseconds(arrivals)} |")
    print(f"| pixels in the browser | {milliseconds(pixels)} |", flush=True)
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
    frames = statistics.median(viewer.frames for viewer in viewers)
    server.stop()
    screen.close()
    return used, frames


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
    counts = slow.frames, fast.frames
    drag(screen, 10)
    ended = time.monotonic()
    moving = (slow.frames - counts[0]) / 10, (fast.frames - counts[1]) / 10
    while not slow.is_idle(1.5) and time.monotonic() - ended < 30:
        time.sleep(0.05)
    print(f"\nA line of 1 Mbit/s beside a free one, 10 s of motion: {moving[0]:.1f} and {moving[1]:.1f} "
          f"frames a second, {slow.bytes // 1000} and {fast.bytes // 1000} KB; the slow one's last "
          f"sharpening came {max(0, slow.times[-1] - ended):.1f} s after the motion ended.")
    server.stop()
    screen.close()


if __name__ == "__main__":
    delay()
    one, ten = cost(1), cost(10)
    print(f"\nProcessor seconds of server and service over 10 s of drawing: one viewer {one[0]:.2f}, ten "
          f"{ten[0]:.2f}: {ten[0] / one[0]:.2f} times ({one[1]:.0f} and {ten[1]:.0f} frames each).")
    slow_line()
    os._exit(0)  # the throttle's threads wait for ever
