# SPDX-License-Identifier: BSD-2-Clause
"""The page in a real browser: what its canvas shows is what the screen shows."""

import os
import random
import shutil
import signal
import socket
import subprocess
import threading
import time

import numpy
import pytest

from conftest import Screen, Viewer, eventually, psnr

ALIKE = 33  # dB; a part that is old costs far more


def shows(browser, screen):
    """Waits until the canvas shows the screen; returns how well."""
    eventually(lambda: browser.state() == "live")
    return eventually(lambda: (likeness := psnr(browser.canvas(), screen.pixels())) > ALIKE and likeness)


FIELDS = [0xFFFFFF, 0xFF0000, 0x00FF00, 0x0000FF, 0xFFFF00, 0x00FFFF, 0xFF00FF, 0x808080]


def paint_fields(screen):
    for number, colour in enumerate(FIELDS):
        screen.fill(colour, number % 4 * 160, number // 4 * 240, 160, 240)


def test_eight_colours_and_every_change_arrive(serve, screen, browser):
    server = serve()
    paint_fields(screen)
    browser.open(server.addresses[0])
    shows(browser, screen)

    def colours_are_close():
        wrong = numpy.abs(browser.canvas().astype(int) - screen.pixels())
        return all(wrong[240 * row + 40:240 * row + 200, 160 * column + 40:160 * column + 120].max() <= 3
                   for row in range(2) for column in range(4))
    eventually(colours_are_close)
    for step in range(5):  # of one field each: the others must stay right
        screen.fill(0x204060 + step * 0x101010, step * 100, 100, 60, 200)

        def shows_beside_another():  # the whole is drawn only when nothing changes any more
            screen.fill(random.randrange(1 << 24), 600, 440, 16, 16)
            return psnr(browser.canvas(), screen.pixels()) > ALIKE
        eventually(shows_beside_another)


def test_it_follows_the_size_of_the_screen(serve, screen, browser):
    server = serve()
    paint_fields(screen)
    browser.open(server.addresses[0])
    shows(browser, screen)
    screen.resize(500, 300)
    paint_fields(screen)
    eventually(lambda: browser.canvas().shape == (300, 500, 3))
    shows(browser, screen)


@pytest.mark.parametrize("how", [signal.SIGKILL, signal.SIGTERM])
def test_it_goes_on_by_itself_after_the_server_was_away(serve, screen, browser, tmp_path, how):
    server = serve("--tokens", tmp_path / "tokens")
    paint_fields(screen)
    browser.open(server.addresses[0])
    shows(browser, screen)
    server.stop(how)
    eventually(lambda: browser.state() in ("lost", "connecting"))
    screen.fill(0x336699, 100, 100, 200, 200)
    server.command += ["--port", str(server.port)]
    server.start()
    shows(browser, screen)


def test_a_dead_service_is_replaced(serve, screen, browser):
    server = serve()
    paint_fields(screen)
    browser.open(server.addresses[0])
    shows(browser, screen)
    server.kill_service()
    screen.fill(0x993366, 300, 20, 200, 300)
    shows(browser, screen)


def test_wrong_token_is_said_on_the_page(serve, browser):
    server = serve()
    browser.open(server.addresses[0][:-4] + "0000")
    eventually(lambda: browser.state() == "refused")
    assert "not valid" in browser.run("return document.getElementById('notice').textContent")


def test_what_is_typed_and_pointed_at_reaches_the_screen(serve, screen, browser):
    server = serve("--control")
    browser.open(server.addresses[1])
    shows(browser, screen)
    events = screen.watch_input()
    browser.click("#screen")  # its middle
    eventually(lambda: any(event.startswith("button 1 320 2") for event in events()))
    browser.type("#stage", "a")
    eventually(lambda: "key a" in events())


class Throttle:
    """A proxy that lets so many bytes a second through to the viewer."""

    def __init__(self, rate):
        self.rate, self.target = rate, None
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self.accept, daemon=True).start()

    def accept(self):
        while True:
            client, _ = self.listener.accept()
            server = socket.create_connection(("127.0.0.1", self.target))
            server.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 8192)
            for one, other, rate in ((client, server, None), (server, client, self.rate)):
                threading.Thread(target=self.relay, args=(one, other, rate), daemon=True).start()

    def relay(self, source, sink, rate):
        try:
            while data := source.recv(1400):
                sink.sendall(data)
                if rate:
                    time.sleep(len(data) / rate)
        except OSError:
            pass
        source.close()
        sink.close()


def test_a_slow_line_holds_nobody_back_and_gets_sharp(serve, screen, browser):
    throttle = Throttle(125_000)
    server = serve("--host", f"127.0.0.1:{throttle.port}")
    throttle.target = server.port
    slow = Viewer(server.socket(port=throttle.port))
    fast = Viewer(server.socket())
    screen.scribble(seconds=8)
    assert slow.frames > 40 and fast.bytes > 2 * slow.bytes
    eventually(lambda: slow.is_idle(1) and fast.is_idle(1))
    browser.open(f"http://127.0.0.1:{throttle.port}/#{server.token}")
    shows(browser, screen)


@pytest.mark.skipif(not shutil.which("firefox-esr"), reason="Firefox is not installed")
def test_firefox_shows_the_eight_colours(serve, screen, tmp_path):
    server = serve()
    paint_fields(screen)
    desk = Screen(900, 700)
    try:
        firefox = subprocess.Popen(
            ["firefox-esr", "--new-instance", "--profile", tmp_path, "--kiosk", server.addresses[0]],
            env=os.environ | {"DISPLAY": desk.name, "HOME": str(tmp_path),
                              "MOZ_DISABLE_CONTENT_SANDBOX": "1"},
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

        def fields_are_there():
            shown = desk.pixels().astype(int)
            wanted = [[colour >> 16, colour >> 8 & 255, colour & 255] for colour in FIELDS]
            return all((abs(shown - one).max(axis=2) <= 3).sum() > 100 * 200 for one in wanted)
        eventually(fields_are_there, patience=90)
        firefox.kill()
        firefox.wait()
    finally:
        desk.close()
