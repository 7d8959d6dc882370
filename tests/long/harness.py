"""The built service as a child of a script: commands, segments, runs, and how a step reports.

Every step is a program of its own: it takes the options of arguments(), tries many cases, prints
one line for each finding and ends through Report.end(): a last line "RESULT tried=N failed=M ..."
and an exit status that is 1 when anything failed.
"""

import argparse
import ctypes
import fcntl
import mmap
import os
import pathlib
import re
import select
import shutil
import struct
import subprocess
import sys
import tempfile
import termios
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
HANG = 30  # seconds after which a run counts as hanging; the slowest tools stay far below
LOG_PREFIX = re.compile(r"^(\d+) \d+ \d\d:\d\d:\d\d \d\d\d\.\d\d\d ")


# --- Commands -----------------------------------------------------------------------------------

def raw(size, kind, body=0, argument=0):
    """A header of any declared size, and a body: bytes, or so many zeros."""
    body = bytes(body) if isinstance(body, int) else body
    return struct.pack("<IBB", size, kind, argument) + body


def add(stream, width=64, height=48, bitrate=0, threads=1, flags=4, qp=(0, 51)):
    return raw(16, 0, struct.pack("<BBHBBHH", stream, threads, bitrate, *qp, width, height), flags)


def remove(stream):
    return raw(8, 1, bytes([stream, 0]))


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


def encode(stream, rectangles=None, copies=b"", r=None, k=None, size=None, invalidate=0,
           layout=planes(64, 48)):
    """Lists as bytes (None: the whole picture); r, k and size as declared where they shall lie."""
    lists = (rectangle() if rectangles is None else rectangles)
    r = len(lists) if r is None else r
    k = len(copies) if k is None else k
    body = struct.pack("<BB4xI6II", stream, invalidate, r, *layout, k) + lists + copies
    return raw(6 + len(body) if size is None else size, 2, body)


def mask_times(output):
    """The replies with their two clock readings zeroed."""
    masked, at = bytearray(output), 0
    while at + 20 <= len(masked):
        masked[at + 12:at + 20] = bytes(8)
        at += 20 + struct.unpack_from("<I", masked, at + 8)[0]
    return bytes(masked)


# --- Shared memory and processes ----------------------------------------------------------------

libc = ctypes.CDLL(None, use_errno=True)
libc.shmat.restype = ctypes.c_void_p
libc.shmat.argtypes = [ctypes.c_int, ctypes.c_void_p, ctypes.c_int]
libc.shmdt.argtypes = [ctypes.c_void_p]
IPC_RMID, IPC_STAT, PR_SET_CHILD_SUBREAPER = 0, 2, 36


def attached(segment):
    """How many processes have the segment attached; None when it is gone."""
    record = ctypes.create_string_buffer(256)
    if libc.shmctl(segment, IPC_STAT, record) == -1:
        return None
    return struct.unpack_from("<Q", record, 88)[0]


class Segment:
    def __init__(self, size=65536):
        self.id = libc.shmget(0, size, 0o600)
        if self.id == -1:
            raise OSError(ctypes.get_errno(), "shmget")
        self.size = size

    def map(self):
        """A writable view; stays attached in this process until it ends."""
        return (ctypes.c_char * self.size).from_address(libc.shmat(self.id, None, 0))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        libc.shmctl(self.id, IPC_RMID, None)


class Ending:
    def __init__(self, status, output, log, pid):
        self.status, self.output = status, output  # status: "hang" when it had to be killed
        self.lines = [normalised(line, pid) for line in log.decode(errors="replace").splitlines()]

    def __eq__(self, other):
        return vars(self) == vars(other)

    def __str__(self):
        return f"status {self.status}, {len(self.output)} bytes, lines {self.lines}"


def normalised(line, pid):
    """Log lines without their prefix; what has none, or another process's, is marked with "~ "."""
    prefix = LOG_PREFIX.match(line)
    if prefix and int(prefix[1]) == pid:
        return line[prefix.end():]
    return line if line.startswith(("Error: ", "Warning: ")) else "~ " + line


class Build:
    """Where one build has its things, and the roots that its services are started with."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder).resolve()
        self.service = self.folder / "qora-codec"
        self.real = self.folder / "codec-root"
        self.faults = self.folder / "stress" / "libfaults.so"
        self.odd_ends = self.folder / "stress" / "odd_ends"
        self.scratch = pathlib.Path(tempfile.mkdtemp(prefix="qora-stress-"))
        self.roots = {}
        cache = (self.folder / "CMakeCache.txt").read_text()
        self.sanitized = "-fsanitize" in cache  # takes no preloaded allocator

    def root(self, first=None, second=None):
        """A root with these libraries at its two places: a fake's name, "file" for no library."""
        key = (first, second)
        if key not in self.roots:
            root = self.scratch / f"root{len(self.roots)}"
            root.mkdir()
            for place, name in (("lib", first), ("codec/lib", second)):
                if name:
                    link = root / place / "libx264.so"
                    link.parent.mkdir(parents=True)
                    fake = self.folder / "tests" / "fake_encoders" / f"{name}.so"
                    link.symlink_to(ROOT / "README.md" if name == "file" else fake)
            self.roots[key] = root
        return self.roots[key]

    def fake(self):
        return self.root("build_142")

    def close(self):
        shutil.rmtree(self.scratch)


class Counts:
    """What libfaults.so counts in a service, while it runs and after."""

    def __init__(self):
        self.file = os.memfd_create("counts", 0)
        os.truncate(self.file, 16)
        self.memory = mmap.mmap(self.file, 16)
        self.path = f"/proc/{os.getpid()}/fd/{self.file}"

    def now(self):
        """How often memory was asked for, and the blocks that are held."""
        return struct.unpack("<QQ", self.memory)


class Service:
    """One run of the service. `environment` adds to the little it needs; a value None removes."""

    def __init__(self, build, root=None, environment=(), stdin=None, wrap=(), program=None,
                 preload=False):
        variables = {"PATH": os.environ["PATH"], "QORA_SYSTEM": str(root or build.fake())}
        if preload:
            variables["LD_PRELOAD"] = str(build.faults)
        variables.update(environment)
        variables = {name: value for name, value in variables.items() if value is not None}
        self.log = os.memfd_create("log")
        self.input = None
        if stdin is None:
            stdin, self.input = os.pipe()
        self.output, output = os.pipe()
        command = [*map(str, wrap), *map(str, program or [build.service])]
        self.child = subprocess.Popen(command, stdin=stdin, stdout=output, stderr=self.log,
                                      env=variables)
        self.pid = self.child.pid
        os.close(stdin)
        os.close(output)

    def send(self, data):
        """All of it, unless the service has ended."""
        try:
            while data:
                data = data[os.write(self.input, data):]
        except BrokenPipeError:
            pass

    def settle(self):
        """Waits until the service has read all that was sent, or has ended."""
        deadline = time.monotonic() + HANG
        waiting = bytearray(4)
        while self.child.poll() is None and time.monotonic() < deadline:
            fcntl.ioctl(self.input, termios.FIONREAD, waiting)
            if not any(waiting):
                return
            time.sleep(0.00005)

    def read(self, count):
        """Exactly so many bytes; fewer at the end of the output or when it hangs."""
        parts = bytearray()
        while len(parts) < count:
            if not select.select([self.output], [], [], HANG)[0]:
                break
            more = os.read(self.output, count - len(parts))
            if not more:
                break
            parts += more
        return bytes(parts)

    def reply(self):
        head = self.read(20)
        return head + (self.read(struct.unpack_from("<I", head, 8)[0]) if len(head) == 20 else b"")

    def close_input(self):
        if self.input is not None:
            os.close(self.input)
            self.input = None

    def close_output(self):
        os.close(self.output)
        self.output = None

    def finish(self):
        """End of input, the rest of the output, the end."""
        self.close_input()
        output = b""
        if self.output is not None:
            while more := self.read(1 << 20):
                output += more
            self.close_output()
        try:
            status = self.child.wait(HANG)
        except subprocess.TimeoutExpired:
            self.child.kill()
            self.child.wait()
            status = "hang"
        log = os.pread(self.log, 1 << 24, 0)
        os.close(self.log)
        return Ending(status, output, log, self.pid)


def run(build, data, **options):
    """One run with `data` as a file on standard input: every read gives all that was asked for."""
    stdin = os.memfd_create("input")
    os.write(stdin, data)
    os.lseek(stdin, 0, os.SEEK_SET)
    return Service(build, stdin=stdin, **options).finish()


# --- Steps --------------------------------------------------------------------------------------

def arguments(description, **defaults):
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("--build", default=ROOT / "build" / "release", help="build folder")
    parser.add_argument("--short", action="store_true", help="a sample, for the fast suite")
    parser.add_argument("--seconds", type=float, default=60, help="time budget where one applies")
    parser.add_argument("--logs", type=pathlib.Path, help="folder for what the step writes")
    parser.set_defaults(**defaults)
    options = parser.parse_args()
    options.deadline = time.monotonic() + options.seconds
    options.build = Build(options.build)
    options.logs = options.logs or options.build.folder / "stress" / "logs"
    options.logs.mkdir(parents=True, exist_ok=True)
    return options


class Report:
    """Counts cases and prints findings as they come."""

    def __init__(self, options):
        self.options, self.tried, self.failed, self.notes = options, 0, 0, []

    def check(self, passed, finding):
        """`finding`: a text, or a function that makes it."""
        self.tried += 1
        if not passed:
            self.failed += 1
            print("FINDING:", finding() if callable(finding) else finding, flush=True)
        return passed

    def note(self, text):
        self.notes.append(text)

    def end(self):
        self.options.build.close()
        print(f"RESULT tried={self.tried} failed={self.failed} {'; '.join(self.notes)}", flush=True)
        sys.exit(1 if self.failed or not self.tried else 0)
