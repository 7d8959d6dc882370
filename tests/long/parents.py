#!/usr/bin/env python3
"""Parents that are slow, that stop listening, and that die at every byte of a command.

Whatever the parent does, the service ends by itself and lets go of the segment. How soon is
measured in the long form only: there the end must come within 50 ms and a frame's time.
"""

import fcntl
import os
import signal
import struct
import time

import harness
from harness import (HANG, IPC_RMID, Segment, Service, add, attach, attached, copy, encode, libc,
                     mask_times, planes, rectangle)

MIB = 1 << 20
F_SETPIPE_SZ = 1031
PROMPT = 0.050  # seconds


def big_replies(build, segment):
    """A service whose replies have 1 MiB of coded data, into a pipe of 4 KiB."""
    service = Service(build, environment={"FAKE_ENCODER": f"encode={MIB}"})
    fcntl.fcntl(service.output, F_SETPIPE_SZ, 4096)
    service.send(add(0) + attach(segment))
    return service


def slow_reader(report, build, segment, byte_by_byte):
    """Three replies into a small pipe, read in small pieces; nothing is lost."""
    service = big_replies(build, segment)
    service.send(encode(0) * 3)
    service.close_input()
    output = bytearray()
    step = 1
    while more := os.read(service.output, step):
        output += more
        step = 1 if len(output) < byte_by_byte else 4093
    expected = b"".join(
        struct.pack("<IBBBBIII", 20, 5, frame == 0, 21 + frame, 0, MIB, 0, 0)
        + (bytes(range(256)) * (MIB // 256 + 1))[frame:frame + MIB] for frame in range(3))
    ending = service.finish()
    report.check(ending.status == 0 and mask_times(output) == expected,
                 lambda: f"slow reader: status {ending.status}, {len(output)} bytes")


def deaf_parent(report, build, segment, percents):
    """The reply end is closed with so many percent of a reply read."""
    for percent in percents:
        service = big_replies(build, segment)
        service.send(encode(0))
        service.read((MIB + 20) * percent // 100)
        if percent == 100:
            service.send(encode(0))
        service.close_output()
        ending = service.finish()
        report.check(ending.status == 32 and not ending.lines and attached(segment) == 0,
                     lambda: f"deaf at {percent} %: {ending}, {attached(segment)} attached")


def doomed_parent(build, root, commands, cut, tell):
    """Starts a service, has its segment attached, marks it for removal, writes the commands' first
    `cut` bytes and is killed. Never returns."""
    segment = Segment(MIB)
    service = Service(build, root=root)
    service.send(add(0, 640, 360) + attach(segment.id))
    for _ in range(2):  # the first waits for the start, the second tells what a frame takes
        begun = time.monotonic()
        service.send(encode(0, rectangle(0, 0, 640, 360), layout=planes(640, 360)))
        service.reply()
        frame = time.monotonic() - begun
    libc.shmctl(segment.id, IPC_RMID, None)
    service.send(commands[:cut])
    os.write(tell, struct.pack("<iidd", service.pid, segment.id, frame, time.monotonic()))
    os.kill(os.getpid(), signal.SIGKILL)


def end_of_orphan(pid):
    """Waits for the service, which is ours by now. Its status, None when it does not end."""
    deadline = time.monotonic() + HANG
    while time.monotonic() < deadline:
        try:
            done, status = os.waitpid(pid, os.WNOHANG)
        except ChildProcessError:  # not ours yet: its parent is being cleared away
            done = 0
        if done:
            return os.waitstatus_to_exitcode(status)
        time.sleep(0.0005)
    os.kill(pid, signal.SIGKILL)
    return None


def dying_parent(report, build, root, name, cuts, prompt):
    """The parent is killed after each number of bytes of the next commands."""
    libc.prctl(harness.PR_SET_CHILD_SUBREAPER, 1)
    commands = encode(0, rectangle(0, 0, 640, 360), copy((0, 0), (32, 32), 64, 64),
                      layout=planes(640, 360)) + add(1) + attach(0)
    late = 0.0
    for cut in range(0, len(commands) + 1, cuts):
        hear, tell = os.pipe()
        parent = os.fork()
        if parent == 0:
            doomed_parent(build, root, commands, cut, tell)
        os.close(tell)
        pid, segment, frame, killed = struct.unpack("<iidd", os.read(hear, 24))
        os.close(hear)
        os.waitpid(parent, 0)
        status = end_of_orphan(pid)
        took = time.monotonic() - killed - frame
        late = max(late, took)
        # At the end of input 0; EPIPE when it was about to reply, EINVAL from attaching nothing.
        report.check(status in (0, 22, 32) and attached(segment) is None,
                     lambda: f"{name}: killed at byte {cut}: status {status}, segment "
                             f"{'there' if attached(segment) is not None else 'gone'}")
        if prompt:
            report.check(took <= PROMPT, lambda: f"{name}: byte {cut}: {took * 1000:.1f} ms late")
    if prompt:
        report.note(f"{name}: at most {late * 1000:.1f} ms after the parent and a frame")


def main():
    options = harness.arguments(__doc__)
    report = harness.Report(options)
    build, short = options.build, options.short
    with Segment() as segment:
        slow_reader(report, build, segment.id, 20000 if short else 3 * (MIB + 20))
        deaf_parent(report, build, segment.id, range(0, 101, 20 if short else 1))
    dying_parent(report, build, build.fake(), "scripted", 9 if short else 1, not short)
    dying_parent(report, build, build.real, "real", 20 if short else 1, not short)
    report.end()


if __name__ == "__main__":
    main()
