# SPDX-License-Identifier: BSD-2-Clause
"""Messages of any declared size anywhere in the buffer, and bytes that arrive in any portions."""

import pytest

from harness import (KIB64, MIB, SESSION_REPLIES, SESSION_SCRIPT, Service, add, attach, detach, encode,
                     raw, replies, run, session)

# Around zero, each fixed size, one and two lists' entries, the steps and the end of the buffer, what
# is left of it after the offsets below, and the ends of the signed and unsigned range.
SIZES = sorted(
    {0, 1, 5, 6, 7, 11, 12, 13, 16, 42, 43, 44, 45, 56, 60, 500000, 2 * MIB}
    | {edge + d for edge in (KIB64, 2 * KIB64, MIB) for d in (-12, -1, 0, 1)}
    | {MIB - 65532, MIB - 65532 + 1, MIB - KIB64, MIB - KIB64 + 6, MIB - KIB64 + 7}
    | {0x7FFF0000, 0x7FFFFFFF, 0x80000000, 0xFFFF0000, 0xFFFFFFFF})
# Bytes of commands before. Of the last two all but four bytes, and one, of the header after them lie
# past the first 64 KiB.
OFFSETS = (0, 12, 65532, 65535)
MALFORMED = 22, ["Error: Can't add 'frame' in context [A].", "Error: Error is 22, 'Invalid argument'."]


def command(kind, size):
    """A command of the declared size, with all of its body where that is of a sensible length."""
    if kind != 2:
        return raw(size, kind, {0: [9] + [0] * 9, 1: [3, 0], 3: attach(-1)[6:], 4: detach(77)[6:]}[kind])
    return encode(3, bytes(size - 44)) if 44 <= size <= MIB + KIB64 else raw(size, 2, 38)


def before(held, segment):
    """So many bytes of commands, and what the service says to them. Removals of a segment that is not
    there do nothing; a copy list of any length makes up the rest."""
    if held % 12 == 0:
        return detach(-1) * (held // 12), []
    opening = add(0) + attach(segment)
    removals, rest = divmod(held - len(opening) - len(encode(0)), 12)
    return (detach(-1) * removals + opening + encode(0, copies=bytes(rest)),
            ["CodecFrame: WARNING! Reference frame is empty."])


def model(kind, size, held):
    """Status and lines, from the rules of the buffer alone."""
    size -= 1 << 32 if size >= 1 << 31 else 0
    if kind == 2 and size < 6:
        return MALFORMED
    end = held + {0: 16, 1: 8, 2: size, 3: 12, 4: 12}[kind]
    capacity = -(-max(KIB64, end, size) // KIB64) * KIB64
    if capacity > MIB:
        return 22, [f"Error: Invalid message size {capacity} in context [B]."]
    grown = [f"CodecMain: WARNING! Reallocated buffer with size {capacity}."] * (capacity > KIB64)
    if kind == 2 and size < 44:
        return MALFORMED[0], grown + MALFORMED[1]
    status, *lines = {
        0: (0, "CodecFrame: ERROR! Cannot add invalid stream ID#9."),
        1: (0, "CodecFrame: WARNING! Cannot close invalid encoder for stream ID#3."),
        2: (0, "CodecFrame: ERROR! Cannot encode frame with stream ID#3 not initialized."),
        3: (22, "CodecSegment: ERROR! Failed to attach to segment id -1.",
            "CodecSegment: ERROR! Error is 22 'Invalid argument'."),
        4: (0, "CodecSegment: ERROR! Cannot remove unknow segment id 77."),
    }[kind]
    return status, grown + lines


@pytest.mark.parametrize("held", OFFSETS)
def test_every_declared_size(held, segment):
    data, lines_before = before(held, segment)
    assert len(data) == held
    for size in SIZES:
        for kind in range(5):
            ending = run(data + command(kind, size))
            status, lines = model(kind, size, held)
            assert (ending.status, ending.lines) == (status, lines_before + lines), (kind, size)


def delivered(parts):
    """The ending of a run in which each part is taken before the next is written."""
    service = Service(script=SESSION_SCRIPT)
    service.send(parts[0])
    for part in parts[1:]:
        service.settle()
        service.send(part)
    return service.finish()


def test_replies_do_not_depend_on_where_writes_end(segment):
    data = b"".join(session(segment))
    whole = delivered([data])
    assert whole.status == 0 and replies(whole.output) == SESSION_REPLIES
    ways = [[data[:cut], data[cut:]] for cut in range(1, len(data))]
    ways += [[data[at:at + step] for at in range(0, len(data), step)] for step in (1, 7)]
    for parts in ways:
        ending = delivered(parts)
        assert (ending.status, replies(ending.output), ending.lines) == (
            0, SESSION_REPLIES, whole.lines), [len(part) for part in parts]


def test_short_transfers_lose_nothing(segment):
    for length in (*range(1, 42), 63, 64, 119, 120, 121):
        ending = run(b"".join(session(segment)), script=SESSION_SCRIPT, fault=f"short={length}")
        assert ending.status == 0 and replies(ending.output) == SESSION_REPLIES, length
