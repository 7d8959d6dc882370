"""The session that the fault steps send, as a list of commands."""

import struct

from harness import add, attach, copy, detach, encode, rectangle, remove


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


# Which frame of its stream each reply holds, in order.
FRAMES = (0, 0, 1, 2, 1, 0, 3)


def replies():
    """What the scripted encoder's replies are, with the clock readings masked."""
    return b"".join(
        struct.pack("<IBBBBIII", 20, 5, frame == 0, 21 + frame, 0, 100, 0, 0)
        + bytes(range(frame, frame + 100)) for frame in FRAMES)
