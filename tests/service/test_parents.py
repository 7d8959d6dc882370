# SPDX-License-Identifier: BSD-2-Clause
"""Parents that are slow, that stop listening, and that die at every byte of a command. Whatever the
parent does, the service ends by itself and lets go of the segment."""

import fcntl
import os
import signal
import struct

import pytest

import harness
from harness import (HANG, LONG, MIB, Segment, Service, add, attach, attached, copy, encode, planes,
                     rectangle, replies, scripted_reply)

F_SETPIPE_SZ, PR_SET_CHILD_SUBREAPER = 1031, 36


def big_replies(segment):
    """A service whose replies have 1 MiB of coded data, into a pipe of 4 KiB."""
    service = Service(script=f"encode={MIB}")
    fcntl.fcntl(service.child.stdout, F_SETPIPE_SZ, 4096)
    service.send(add(0) + attach(segment))
    return service


def test_a_slow_reader_loses_nothing(segment):
    service = big_replies(segment)
    service.send(encode(0) * 2)
    size, byte_by_byte, output = 2 * (MIB + 20), 2 * MIB if LONG else 20000, bytearray()
    while len(output) < size:
        output += service.read(1 if len(output) < byte_by_byte else min(4093, size - len(output)))
    assert service.finish().status == 0
    assert replies(bytes(output)) == [scripted_reply(frame, MIB) for frame in (0, 1)]


@pytest.mark.parametrize("percent", range(0, 101, 1 if LONG else 20))
def test_a_parent_that_stops_listening(percent, segment):
    service = big_replies(segment)
    service.send(encode(0))
    service.read((MIB + 20) * percent // 100)
    if percent == 100:
        service.send(encode(0))
    service.child.stdout.close()
    service.child.stdout = None
    assert service.finish() == (32, b"", [])


def doomed_parent(system, commands, report):
    """Has a segment attached, marks it for removal, writes the commands and is killed."""
    segment = Segment(MIB)
    service = Service(system=system)
    service.send(add(0, 640, 360) + attach(segment.id)
                 + encode(0, rectangle(0, 0, 640, 360), layout=planes(640, 360)))
    service.reply()
    segment.mark_removed()
    service.send(commands)
    os.write(report, struct.pack("<ii", service.pid, segment.id))
    os.kill(os.getpid(), signal.SIGKILL)


@pytest.mark.parametrize("system, step", [(None, 9), (harness.REAL, 20)], ids=["scripted", "real"])
def test_a_parent_that_dies(system, step):
    harness.libc.prctl(PR_SET_CHILD_SUBREAPER, 1)  # orphans become ours
    commands = encode(0, rectangle(0, 0, 640, 360), copy((0, 0), (32, 32), 64, 64),
                      layout=planes(640, 360)) + add(1) + attach(0)
    for cut in range(0, len(commands) + 1, 1 if LONG else step):
        hear, report = os.pipe()
        parent = os.fork()
        if parent == 0:
            doomed_parent(system, commands[:cut], report)
        os.close(report)
        pid, segment = struct.unpack("<ii", os.read(hear, 8))
        os.close(hear)
        os.waitpid(parent, 0)
        signal.alarm(HANG)
        status = os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
        signal.alarm(0)
        # 0 at the end of input; EPIPE when it was about to reply, EINVAL from attaching nothing.
        assert status in (0, 22, 32) and attached(segment) is None, cut
