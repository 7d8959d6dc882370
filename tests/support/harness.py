# SPDX-License-Identifier: BSD-2-Clause
"""The built service as a child of a test: commands, replies, segments, libraries, runs."""
# QORA_BUILD names the build folder. QORA_FORM is "long" for the forms that take minutes, QORA_SECONDS
# how long those may run that have no end of their own.

import ctypes
import fcntl
import functools
import itertools
import mmap
import os
import pathlib
import re
import struct
import subprocess
import tempfile
import termios
import time
from typing import NamedTuple

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("QORA_BUILD", ROOT / "build" / "release"))
LONG = os.environ.get("QORA_FORM") == "long"
SECONDS = float(os.environ.get("QORA_SECONDS", 120))
REAL = BUILD / "codec-root"
SCRIPTED = BUILD / "tests" / "scripted_encoder.so"
SANITIZED = "-fsanitize" in (BUILD / "CMakeCache.txt").read_text()
HANG = 30  # seconds after which a run counts as hanging
KIB64, MIB = 1 << 16, 1 << 20


# --- Commands -----------------------------------------------------------------------------------

def raw(size, kind, body=0, argument=0):
    """A header of any declared size, and a body: bytes, or so many zeros."""
    return struct.pack("<IBB", size, kind, argument) + bytes(body)


def add(stream, width=64, height=48, bitrate=0, threads=1, flags=4, qp=(0, 51)):
    return raw(16, 0, struct.pack("<BBHBBHH", stream, threads, bitrate, *qp, width, height), flags)


def remove(stream):
    return raw(8, 1, [stream, 0])


def attach(segment):
    return raw(12, 3, struct.pack("<Hi", 0, segment))


def detach(segment):
    return raw(12, 4, struct.pack("<Hi", 0, segment))


def rectangle(x=0, y=0, width=64, height=48, offset=0):
    return struct.pack("<bxxxHHHH", offset, x, y, width, height)


def copy(source, destination, width, height, flags=0):
    return struct.pack("<xxxBHHHHHH", flags, *source, *destination, width, height)


def planes(width, height, start=0):
    """Offsets and strides of a 4:2:0 picture that stands in one piece at `start`."""
    luma, chroma = width * height, (width // 2) * (height // 2)
    return (start, width, start + luma, width // 2, start + luma + chroma, width // 2)


def encode(stream, rectangles=rectangle(), copies=b"", r=None, k=None, invalidate=0,
           layout=planes(64, 48)):
    """Lists as bytes, the whole picture by default; r and k as declared where they lie."""
    r = len(rectangles) if r is None else r
    k = len(copies) if k is None else k
    body = struct.pack("<BB4xI6II", stream, invalidate, r, *layout, k) + rectangles + copies
    return raw(6 + len(body), 2, body)


# --- Replies ------------------------------------------------------------------------------------

class Reply(NamedTuple):
    key: int
    quantizer: int
    payload: bytes


def timed_replies(output):
    """The replies that the bytes hold, and what each says of the clock before and after."""
    found = []
    while output:
        size, kind, key, quantizer, zero, length, *times = struct.unpack_from("<IBBBBIII", output)
        assert (size, kind, zero) == (20, 5, 0) and len(output) >= 20 + length
        found.append((Reply(key, quantizer, output[20:20 + length]), times))
        output = output[20 + length:]
    return found


def replies(output):
    return [reply for reply, _ in timed_replies(output)]


def scripted_reply(frame, size=100):
    """What the scripted encoder makes of a stream's frame of that number."""
    return Reply(int(frame == 0), 21 + frame, bytes(i & 255 for i in range(frame, frame + size)))


# --- Shared memory ------------------------------------------------------------------------------

libc = ctypes.CDLL(None, use_errno=True)
libc.shmat.restype = ctypes.c_void_p
IPC_RMID, IPC_STAT = 0, 2


def attached(segment):
    """How many processes have the segment attached; None when it is gone."""
    record = ctypes.create_string_buffer(256)
    if libc.shmctl(segment, IPC_STAT, record) == -1:
        return None
    return struct.unpack_from("<Q", record, 88)[0]


class Segment:
    def __init__(self, size=KIB64):
        self.id, self.size = libc.shmget(0, size, 0o600), size
        assert self.id != -1, os.strerror(ctypes.get_errno())

    def map(self):
        """A writable view; stays attached in this process until it ends."""
        return (ctypes.c_char * self.size).from_address(libc.shmat(self.id, None, 0))

    def mark_removed(self):
        libc.shmctl(self.id, IPC_RMID, None)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.mark_removed()


@pytest.fixture
def segment():
    """The id of a segment, gone after the test; nobody may be attached to it by then."""
    with Segment() as made:
        yield made.id
        assert attached(made.id) == 0


# --- Libraries ----------------------------------------------------------------------------------

scratch = tempfile.TemporaryDirectory(prefix="qora-test-")
fresh_paths = (pathlib.Path(scratch.name) / str(number) for number in itertools.count())


@functools.cache
def library(*lacking):
    """The scripted encoder without these functions: their names are spoilt in its symbol table."""
    data = SCRIPTED.read_bytes()
    for name in lacking:
        assert f"\0x264_{name}\0".encode() in data
        data = data.replace(f"\0x264_{name}\0".encode(), f"\0none_{name}\0".encode())
    path = next(fresh_paths)
    path.write_bytes(data)
    return path


@functools.cache
def root(first=SCRIPTED, second=None):
    """A root with these files at its two library places."""
    folder = next(fresh_paths)
    for place, file in (("lib", first), ("codec/lib", second)):
        (folder / place).mkdir(parents=True)
        if file:
            (folder / place / "libx264.so").symlink_to(file)
    return folder


# --- Runs ---------------------------------------------------------------------------------------

class Counts:
    """What faults.so counts in a service: allocations, blocks that are held, faults that were met."""

    def __init__(self):
        self.file = os.memfd_create("counts")
        os.truncate(self.file, 24)
        self.memory = mmap.mmap(self.file, 24)

    def now(self):
        return struct.unpack("<QQQ", self.memory)


class Ending(NamedTuple):
    status: int
    output: bytes
    lines: list


def normalised(line, pid):
    """Log lines without their prefix; what has none, or another process's, is marked with "~ "."""
    mine = re.compile(rf"^({pid} \d+ \d\d:\d\d:\d\d \d\d\d\.\d\d\d )|(?=Error: |Warning: )")
    return mine.sub("", line) if mine.match(line) else "~ " + line


class Service:
    """One run. `system` is its QORA_SYSTEM, `script` what the scripted encoder does, `fault` and
    `counts` are for faults.so, `log` is another place for standard error."""

    def __init__(self, system=None, script="", fault=None, counts=None, log=None, environment=(),
                 stdin=subprocess.PIPE):
        variables = {"PATH": os.environ["PATH"], "QORA_SYSTEM": str(system or root()),
                     "SCRIPTED_ENCODER": script, **dict(environment)}
        if fault or counts:
            if SANITIZED:
                pytest.skip("a sanitizer takes no preloaded library")
            variables |= {"LD_PRELOAD": str(BUILD / "tests" / "faults.so"), "FAULT": fault or ""}
        if counts:
            variables["FAULT_COUNTS"] = f"/proc/{os.getpid()}/fd/{counts.file}"
        self.log = log or os.memfd_create("log")
        self.child = subprocess.Popen(
            [BUILD / "qora-codec"], stdin=stdin, stdout=subprocess.PIPE, stderr=self.log, bufsize=0,
            env={name: value for name, value in variables.items() if value is not None})
        self.pid = self.child.pid

    def send(self, data):
        """All of it, unless the service has ended."""
        try:
            while data:
                data = data[self.child.stdin.write(data):]
        except BrokenPipeError:
            pass

    def settle(self):
        """Waits until the service has read all that was sent, or has ended."""
        waiting = bytearray(b"1234")
        while any(waiting) and self.child.poll() is None:
            time.sleep(0.00005)
            fcntl.ioctl(self.child.stdin, termios.FIONREAD, waiting)

    def read(self, count):
        """Exactly so many bytes; fewer at the end of the output."""
        parts = b""
        while len(parts) < count and (more := self.child.stdout.read(count - len(parts))):
            parts += more
        return parts

    def reply(self):
        head = self.read(20)
        assert len(head) == 20, "no reply"
        return replies(head + self.read(struct.unpack_from("<I", head, 8)[0]))[0]

    def finish(self):
        """End of input, the rest of the output, the end."""
        try:
            output, _ = self.child.communicate(timeout=HANG)
        except subprocess.TimeoutExpired:
            self.child.kill()
            raise
        log = os.pread(self.log, 1 << 20, 0).decode(errors="replace")
        os.close(self.log)
        return Ending(self.child.returncode, output or b"",
                      [normalised(line, self.pid) for line in log.splitlines()])


def run(data, **options):
    """One run with `data` as a file on standard input: every read gives all that was asked for."""
    stdin = os.memfd_create("input")
    os.write(stdin, data)
    os.lseek(stdin, 0, os.SEEK_SET)
    try:
        return Service(stdin=stdin, **options).finish()
    finally:
        os.close(stdin)


# --- A session ----------------------------------------------------------------------------------

SESSION_SCRIPT = "planes=999"
SESSION_REPLIES = [scripted_reply(frame) for frame in (0, 0, 1, 2, 1, 0, 3)]


def session(segment):
    """Each command and each kind of list; every frame has other lists. Nothing in it fails."""
    two = rectangle(0, 0, 20, 20, -3) + rectangle(32, 16, 32, 32, 5)
    moved = copy((0, 0), (16, 16), 16, 16) + copy((3, 5), (8, 0), 21, 13, flags=6)
    return [
        add(0), attach(segment), encode(0), add(1, bitrate=500, qp=(10, 40)),
        encode(1, two), encode(0, two, moved), encode(0, b"", b""),
        encode(1, two, moved, invalidate=1), remove(1), detach(segment), attach(segment),
        add(1, 32, 32), encode(1, rectangle(0, 0, 32, 32)), encode(0, rectangle(70, 0, 9, 9)),
        remove(0),
    ]


# --- The lines that parents know ----------------------------------------------------------------

def pattern(template):
    """<...> in a line stands for anything."""
    return re.compile(".*".join(map(re.escape, re.split(r"<[\w ]+>", template))))


@functools.cache
def listed():
    """Every line that docs/protocol.md lists, without "Error: " or "Warning: ", and its pattern."""
    text = (ROOT / "docs" / "protocol.md").read_text().split("## Diagnostics")[1]
    quoted = (line for line in re.findall(r"`([^`\n]+)`", text) if " " in line and line[0] != "4")
    return [(line, pattern(line)) for line in quoted]


def entry_of(line):
    """The listed line that this one is: the one with the most text; None if there is none."""
    line = re.sub("^(Error|Warning): ", "", line)
    return max((entry for entry, form in listed() if form.fullmatch(line)), key=len, default=None)
