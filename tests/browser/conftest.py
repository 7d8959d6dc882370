# SPDX-License-Identifier: BSD-2-Clause
"""What the browser tests stand on: an X server, qora-serve over it, viewers of both kinds."""

import base64
import io
import json
import os
import pathlib
import random
import re
import signal
import socket
import subprocess
import threading
import time
import urllib.request

import numpy
import PIL.Image
import pytest
import websocket
import Xlib.XK
import Xlib.display

BUILD = pathlib.Path(os.environ["QORA_BUILD"])
PATIENCE = 30  # seconds for anything that has to happen


def eventually(look, patience=PATIENCE):
    """What `look` returns once it is true."""
    deadline = time.monotonic() + patience
    while not (seen := look()):
        assert time.monotonic() < deadline, "it did not happen"
        time.sleep(0.02)
    return seen


class Screen:
    """An Xvfb whose pixels can be read and painted."""

    def __init__(self, width=640, height=480):
        self.size = (width, height)
        reading, writing = os.pipe()
        self.process = subprocess.Popen(
            ["Xvfb", "-displayfd", str(writing), "-screen", "0", f"{width}x{height}x24",
             "-nolisten", "tcp", "-noreset", "-ac"], pass_fds=[writing],
            stderr=subprocess.DEVNULL)
        os.close(writing)
        with os.fdopen(reading) as display:
            self.name = ":" + display.readline().strip()
        self.display = Xlib.display.Display(self.name)
        self.root = self.display.screen().root
        self.context = self.root.create_gc()

    def fill(self, colour, x=0, y=0, width=None, height=None):
        self.context.change(foreground=colour)
        self.root.fill_rectangle(self.context, x, y, width or self.size[0], height or self.size[1])
        self.display.sync()

    def pixels(self):
        width, height = self.size
        image = self.root.get_image(0, 0, width, height, Xlib.X.ZPixmap, 0xFFFFFFFF)
        return numpy.frombuffer(image.data, numpy.uint8).reshape(height, width, 4)[:, :, 2::-1]

    def resize(self, width, height):
        """By RandR, as a desktop's settings do; Xvfb takes modes up to its first size."""
        name = f"{width}x{height}"
        mode = [name, "0", str(width), "0", "0", "0", str(height), "0", "0", "0"]
        environment = os.environ | {"DISPLAY": self.name}
        for words in (["--newmode", *mode], ["--addmode", "screen", name],
                      ["--output", "screen", "--mode", name]):
            subprocess.run(["xrandr", *words], env=environment, check=True)
        self.size = (width, height)

    def scribble(self, seconds):
        """Something everywhere, 25 times a second: more than a slow line carries."""
        chance = random.Random(5)
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline:
            for _ in range(40):
                x, y = chance.randrange(self.size[0] - 40), chance.randrange(self.size[1] - 40)
                self.fill(chance.randrange(1 << 24), x, y, 40, 40)
            time.sleep(0.04)

    def watch_input(self):
        """A window over everything; returns what it was sent, so far."""
        events = []
        window = self.root.create_window(0, 0, *self.size, 0, self.display.screen().root_depth,
                                         event_mask=Xlib.X.KeyPressMask | Xlib.X.ButtonPressMask)
        window.map()
        window.set_input_focus(Xlib.X.RevertToParent, Xlib.X.CurrentTime)
        self.display.sync()

        def seen():
            while self.display.pending_events():
                event = self.display.next_event()
                if event.type == Xlib.X.KeyPress:
                    symbol = self.display.keycode_to_keysym(event.detail, 0)
                    events.append("key " + Xlib.XK.keysym_to_string(symbol))
                if event.type == Xlib.X.ButtonPress:
                    events.append(f"button {event.detail} {event.root_x} {event.root_y}")
            return events
        return seen

    def close(self):
        self.display.close()
        self.process.kill()
        self.process.wait()


class Viewer:
    """A viewer of our own on a thread, which acknowledges as a page does, or as one whose decoder
    is stuck."""

    def __init__(self, connection, stuck=False):
        self.connection, self.frames, self.bytes, self.times = connection, 0, 0, [time.monotonic()]
        self.stuck = stuck
        self.boxes = set()
        threading.Thread(target=self.collect, daemon=True).start()

    def collect(self):
        try:
            while True:
                kind, data = self.connection.recv_data()
                if kind == websocket.ABNF.OPCODE_BINARY:
                    self.frames += 1
                    self.bytes += len(data)
                    self.boxes.add(data[-8:])
                    self.times.append(time.monotonic())
                if data.startswith(b"line"):
                    self.connection.send(f"ack {0 if self.stuck else self.frames}")
                elif kind == websocket.ABNF.OPCODE_BINARY and not self.stuck:
                    self.connection.send(f"ack {self.frames}")
        except (websocket.WebSocketException, OSError):
            pass

    def is_idle(self, seconds):
        return time.monotonic() - self.times[-1] > seconds


class Server:
    """qora-serve over a screen; its log lines come as they are written."""

    def __init__(self, screen, *options):
        self.command = [BUILD / "qora-serve", "--display", screen.name, *options]
        self.start()

    def start(self):
        self.process = subprocess.Popen(self.command, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                        text=True)
        self.log = []
        threading.Thread(target=self.collect, args=(self.process.stderr,), daemon=True).start()
        count = 2 if "--control" in self.command else 1
        lines = [self.process.stdout.readline() for _ in range(count)]
        assert all(lines), self.log
        self.addresses = [line.split()[1] for line in lines]
        found = re.match(r"http://127\.0\.0\.1:(\d+)/#(\w+)", self.addresses[0])
        self.port, self.token = int(found[1]), found[2]

    def collect(self, stream):
        for line in stream:
            self.log.append(line.strip())

    def says(self, text):
        """Waits for a log line."""
        return eventually(lambda: any(text in line for line in self.log))

    def usage(self):
        """Descriptors and resident KiB."""
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text()
        return (len(os.listdir(f"/proc/{self.process.pid}/fd")),
                int(re.search(r"VmRSS:\s+(\d+)", status)[1]))

    def socket(self, token=None, port=None, **options):
        """A viewer of our own, logged in unless the token is ''."""
        port = port or self.port
        settings = {"origin": f"http://127.0.0.1:{self.port}", "host": f"127.0.0.1:{self.port}",
                    "subprotocols": ["qora-screen"], "timeout": PATIENCE} | options
        viewer = websocket.create_connection(f"ws://127.0.0.1:{port}/", **settings)
        if token != "":
            viewer.send(f"token {token or self.token}")
        return viewer

    def kill_service(self):
        children = pathlib.Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children")
        os.kill(int(children.read_text().split()[0]), signal.SIGKILL)

    def stop(self, how=signal.SIGTERM):
        self.process.send_signal(how)
        return self.process.wait(PATIENCE)


class Browser:
    """Headless Chromium by its driver's own protocol."""

    def __init__(self, folder):
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            port = probe.getsockname()[1]
        self.process = subprocess.Popen(["chromedriver", f"--port={port}"],
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.base = f"http://127.0.0.1:{port}"
        arguments = ["--headless=new", "--no-sandbox", "--use-angle=swiftshader",
                     "--enable-unsafe-swiftshader", "--ignore-gpu-blocklist", "--disable-quic",
                     "--no-first-run", "--disable-background-networking",
                     "--disable-component-update", "--disable-sync", "--window-size=1000,700",
                     f"--user-data-dir={folder}"]
        wanted = {"capabilities": {"alwaysMatch": {"goog:chromeOptions": {"args": arguments}}}}
        eventually(self.is_ready)
        self.base += "/session/" + self.call("session", wanted)["sessionId"]

    def is_ready(self):
        try:
            return self.call("status")["ready"]
        except OSError:
            return False

    def call(self, path, body=None):
        data = None if body is None else json.dumps(body).encode()
        request = urllib.request.Request(f"{self.base}/{path}", data,
                                         {"Content-Type": "application/json"})
        with urllib.request.urlopen(request, timeout=60) as answer:
            return json.load(answer)["value"]

    def open(self, address):
        self.call("url", {"url": "about:blank"})
        self.call("url", {"url": address})

    def run(self, script):
        return self.call("execute/sync", {"script": script, "args": []})

    def state(self):
        return self.run("return document.getElementById('state')?.dataset.state")

    def element(self, selector):
        found = self.call("element", {"using": "css selector", "value": selector})
        return "element/" + next(iter(found.values()))

    def type(self, selector, text):
        self.call(self.element(selector) + "/value", {"text": text})

    def click(self, selector):
        self.call(self.element(selector) + "/click", {})

    def canvas(self):
        """What the canvas shows, without the pointer over it."""
        data = self.run("""
            const screen = document.getElementById('screen');
            const copy = document.createElement('canvas');
            [copy.width, copy.height] = [screen.width, screen.height];
            copy.getContext('2d').drawImage(screen, 0, 0);
            return copy.toDataURL();""")
        png = base64.b64decode(data.split(",")[1])
        return numpy.asarray(PIL.Image.open(io.BytesIO(png)).convert("RGB"))

    def close(self):
        urllib.request.urlopen(urllib.request.Request(self.base, method="DELETE"), timeout=60)
        self.process.terminate()
        self.process.wait()


def psnr(one, other):
    """Of brightness: colours lose their edges on the way."""
    if one.shape != other.shape:
        return 0
    error = numpy.mean(((one.astype(float) - other) @ [0.2126, 0.7152, 0.0722]) ** 2)
    return 99 if error == 0 else 10 * numpy.log10(255 ** 2 / error)


@pytest.fixture
def screen():
    screen = Screen()
    yield screen
    screen.close()


@pytest.fixture
def serve(screen):
    servers = []

    def start(*options):
        servers.append(Server(screen, *options))
        return servers[-1]

    yield start
    for server in servers:
        if server.process.poll() is None:
            assert server.stop() == 0


@pytest.fixture(scope="session")
def browser(tmp_path_factory):
    browser = Browser(tmp_path_factory.mktemp("profile"))
    yield browser
    browser.close()
