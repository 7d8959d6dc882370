# SPDX-License-Identifier: BSD-2-Clause
"""A real X server with real programs on it, and recordings of it."""

import os
import pathlib
import re
import signal
import subprocess
import tempfile
import time

import harness

RECORD = harness.BUILD / "qora-record"
NOBODY = 65534


def run(*words, **options):
    done = subprocess.run([str(word) for word in words], capture_output=True, text=True, timeout=60,
                          **options)
    assert done.returncode == 0, done.stderr
    return done.stdout + done.stderr


def eventually(question, seconds=20):
    """Asks until the answer is true; what it is then. Slow machines are given their time."""
    end = time.monotonic() + seconds
    while not (answer := question()):
        assert time.monotonic() < end, "it never came to that"
        time.sleep(0.02)
    return answer


class Screen:
    """An Xvfb of its own display, grey all over; everything on it ends with it."""

    def __init__(self, size="640x480", *options):
        reader, writer = os.pipe()
        self.programs = []
        self.server = subprocess.Popen(
            ["Xvfb", "-displayfd", str(writer), "-screen", "0", f"{size}x24", "-noreset", *options],
            pass_fds=[writer], stderr=subprocess.DEVNULL)
        os.close(writer)
        with os.fdopen(reader) as number:
            self.name = ":" + number.readline().strip()
        self.environment = {**os.environ, "DISPLAY": self.name}
        self.call("xsetroot", "-solid", "#808080")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for program in [*self.programs, self.server]:
            program.kill()
            program.wait()

    def call(self, *words):
        return run(*words, env=self.environment)

    def start(self, *words):
        program = subprocess.Popen(words, env=self.environment, stdin=subprocess.DEVNULL,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.programs.append(program)
        return program

    def terminal(self, command="cat", geometry="60x20+10+10"):
        """The number of an xterm's window, once it is there; keys go to it."""
        name = f"terminal{len(self.programs)}"
        self.start("xterm", "-T", name, "-geometry", geometry, "-bw", "0", "-bg", "white", "-fg", "black", "-e",
                   "sh", "-c", command)
        number = self.call("xdotool", "search", "--sync", "--onlyvisible", "--name", name).split()[0]
        self.call("xdotool", "mousemove", "--window", number, "50", "50")
        return number

    def picture(self, path):
        dump = path.with_suffix(".xwd")
        self.call("xwd", "-silent", "-root", "-out", dump)
        run("ffmpeg", "-v", "error", "-y", "-i", dump, "-pix_fmt", "rgb24", path)
        return path


class Compositor(Screen):
    """A Wayland compositor without a display, as an ordinary user: it refuses to run as root."""

    def __init__(self):
        self.programs = []
        self.owner = tempfile.TemporaryDirectory()  # deleted with us
        self.folder = self.owner.name
        options = {"user": NOBODY, "group": NOBODY, "extra_groups": []} if os.getuid() == 0 else {}
        if options:
            os.chown(self.folder, NOBODY, NOBODY)
        self.environment = {**os.environ, "XDG_RUNTIME_DIR": self.folder, "HOME": self.folder,
                            "WLR_BACKENDS": "headless", "WLR_RENDERER": "pixman",
                            "WLR_LIBINPUT_NO_DEVICES": "1"}
        config = pathlib.Path(self.folder, "config")
        config.write_text("output HEADLESS-1 mode 640x480@60Hz\n")
        self.server = subprocess.Popen(["sway", "-c", config], env=self.environment, cwd="/",
                                       stderr=subprocess.DEVNULL, **options)
        found = lambda pattern: next(pathlib.Path(self.folder).glob(pattern), None)
        self.environment["SWAYSOCK"] = str(eventually(lambda: found("sway-ipc*.sock")))
        self.name = str(eventually(lambda: found("wayland-[0-9]")))
        self.environment["WAYLAND_DISPLAY"] = self.name

    def picture(self, path):
        self.call("grim", path)
        return path


class Recording:
    """A recorder at work; its end is its status and what it said."""

    def __init__(self, screen, path, *options, stdout=None):
        self.path = path
        words = [RECORD, "--quiet", "--cursor", "off", "--display", screen.name, "-o", path, *options]
        self.process = subprocess.Popen([str(word) for word in words], stdout=stdout,
                                        stderr=subprocess.PIPE, text=True)
        if "--duration" not in options:
            eventually(lambda: self.process.poll() is not None or path.exists())

    def service(self):
        """The number of the service's process; 0: there is none now."""
        task = pathlib.Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children")
        return int((task.read_text().split() or [0])[0])

    def end(self):
        said = self.process.communicate(timeout=harness.HANG)[1]
        return self.process.returncode, said

    def stop(self, with_signal=signal.SIGTERM):
        self.process.send_signal(with_signal)
        return self.end()


def crop(picture, width, height, x, y):
    part = picture.with_name(f"{x}+{y} of {picture.name}")
    run("ffmpeg", "-v", "error", "-i", picture, "-vf", f"crop={width}:{height}:{x}:{y}:exact=1", part)
    return part


def probe(path, entries):
    text = run("ffprobe", "-v", "error", "-count_packets", "-show_entries", entries, "-of",
               "csv=p=0", path)
    return [line.strip(",").split(",") for line in text.split()]


def stamps(path):
    times = [float(row[0]) for row in probe(path, "packet=pts_time")]
    return times, float(probe(path, "format=duration")[0][0])


def frames(path):
    return int(probe(path, "stream=nb_read_packets")[0][0])


def last_picture(path):
    """The last decoded picture, as a file; a stream that does not decode in order fails."""
    picture = path.with_suffix(".png")
    assert run("ffmpeg", "-v", "error", "-y", "-xerror", "-i", path, "-vf", "setpts=N/25/TB",
               "-update", "1", picture) == ""
    return picture


def likeness(one, other):
    """PSNR in decibels."""
    said = run("ffmpeg", "-v", "info", "-i", one, "-i", other, "-lavfi", "psnr", "-f", "null", "-")
    return float(re.search(r"average:(\S+)", said)[1])


def shows_the_screen(path, screen, folder):
    return likeness(last_picture(path), screen.picture(folder / "screen.png")) > 38
