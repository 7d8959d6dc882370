#!/usr/bin/env python3
"""Every command with every interesting declared size, at the start of the buffer and behind held
bytes: the exact lines and status, told by a model that knows only the rules of the buffer."""

import harness
from harness import Segment, add, attach, detach, encode, raw, run

KIB64, MIB = 65536, 1 << 20
NAMES = ("add", "remove", "encode", "attach", "detach")

# Around zero, each fixed size, one and two lists' entries, each step of the buffer, its end and
# what is left of it behind the offsets below, and the ends of the signed and unsigned range.
SIZES = sorted(
    {*range(0, 19), *range(42, 47), 55, 56, 57, 60, 68, 72}
    | {edge + d for edge in (KIB64, 2 * KIB64, 15 * KIB64, MIB) for d in (-13, -12, -1, 0, 1, 12)}
    | {MIB - 65520, MIB - 65520 + 1, MIB - 65532, MIB - 65532 + 1, MIB - KIB64 + 6, 50000, 500000}
    | {2 * MIB, 0x00FFFFFF, 0x7FFEFFFF, 0x7FFF0000, 0x7FFFFFFE, 0x7FFFFFFF}
    | {0x80000000, 0x80000001, 0xFFFF0000, 0xFFFFFFFE, 0xFFFFFFFF})

# Held bytes: removals of a segment that is not there, which do nothing, and a frame with a list of
# copies where they cannot be that many. Of the last two all but four bytes, and one, of the header
# lie behind the first 64 KiB.
OFFSETS = (0, 12, 65520, 65532, 65535)

MALFORMED = (22, ["Error: Can't add 'frame' in context [A].",
                  "Error: Error is 22, 'Invalid argument'."])


def signed(size):
    return size - (1 << 32) if size >= 1 << 31 else size


def command(kind, size):
    """A command of the declared size, with all of its body where that is of a sensible length."""
    if kind != 2:
        body = {0: bytes([9]) + bytes(9), 1: bytes([3, 0]),
                3: attach(-1)[6:], 4: detach(77)[6:]}[kind]
        return raw(size, kind, body)
    if not 44 <= size <= MIB + KIB64:
        return raw(size, 2, 38)
    return encode(3, bytes(size - 44), size=size)


def before(held, segment):
    """So many bytes of commands, and what the service says to them."""
    if held % 12 == 0:
        return detach(-1) * (held // 12), []
    opening = add(0) + attach(segment)
    room = held - len(opening) - len(encode(0))
    return (detach(-1) * (room // 12) + opening + encode(0, copies=bytes(room % 12)),
            ["CodecFrame: WARNING! Reference frame is empty."])


def model(kind, size, held):
    """Status and lines."""
    size = signed(size)
    if kind == 2 and size < 6:
        return MALFORMED
    end = held + 6 + (size - 6 if kind == 2 else {0: 10, 1: 2, 3: 6, 4: 6}[kind])
    needed = max([KIB64, end] + ([size] if size > KIB64 else []))
    capacity = -(-needed // KIB64) * KIB64
    if capacity > MIB:
        return 22, [f"Error: Invalid message size {capacity} in context [B]."]
    lines = []
    if capacity > KIB64:
        lines = [f"CodecMain: WARNING! Reallocated buffer with size {capacity}."]
    if kind == 2 and size < 44:
        return MALFORMED[0], lines + MALFORMED[1]
    status, more = {
        0: (0, ["CodecFrame: ERROR! Cannot add invalid stream ID#9."]),
        1: (0, ["CodecFrame: WARNING! Cannot close invalid encoder for stream ID#3."]),
        2: (0, ["CodecFrame: ERROR! Cannot encode frame with stream ID#3 not initialized."]),
        3: (22, ["CodecSegment: ERROR! Failed to attach to segment id -1.",
                 "CodecSegment: ERROR! Error is 22 'Invalid argument'."]),
        4: (0, ["CodecSegment: ERROR! Cannot remove unknow segment id 77."]),
    }[kind]
    return status, lines + more


def main():
    options = harness.arguments(__doc__)
    report = harness.Report(options)
    with Segment() as segment:
        for held in OFFSETS:
            data, said = before(held, segment.id)
            assert len(data) == held
            for size in SIZES:
                for kind, name in enumerate(NAMES):
                    ending = run(options.build, data + command(kind, size))
                    status, lines = model(kind, size, held)
                    report.check((ending.status, ending.lines) == (status, said + lines),
                                 lambda: f"{name} of size {size} behind {held} bytes: {ending}\n"
                                         f"  expected {status}, {said + lines}")
    report.note(f"{len(SIZES)} sizes, {len(NAMES)} commands, {len(OFFSETS)} offsets")
    report.end()


if __name__ == "__main__":
    main()
