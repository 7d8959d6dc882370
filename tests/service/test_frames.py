# SPDX-License-Identifier: BSD-2-Clause
"""What the encoder is given for a frame and what a reply says, as the scripted encoder reports it."""

import pytest

import harness
from harness import (Counts, Service, add, attach, encode, library, rectangle, remove, replies, root,
                     run, timed_replies)


def reported(commands, cells, **options):
    """(key frame, quantizer, what the encoder was given, {cell: quantizer offset} of the changed
    cells, the offsets of the others) of each frame."""
    ending = run(commands, script=f"report={cells}", **options)
    assert ending.status == 0
    found = []
    for reply in replies(ending.output):
        given, maps = reply.payload.decode().rsplit(";", 1)
        pairs = [(cell, *map(float, pair.split(":"))) for cell, pair in enumerate(maps.split())]
        found.append((reply.key, reply.quantizer, given,
                      {cell: offset for cell, unchanged, offset in pairs if not unchanged},
                      {cell: offset for cell, unchanged, offset in pairs if unchanged}))
    return found


def test_the_encoder_is_given_the_picture(segment):
    commands = add(0) + attach(segment)
    commands += encode(0, rectangle(8, 0, 16, 16, offset=5), invalidate=1,
                       layout=(0, 64, 4096, 32, 5120, 33))
    commands += encode(0, b"", bytes(16), invalidate=2)
    assert reported(commands, 4) == [
        (1, 21, "1 open, 1 invalidated, aq mode at 708; 3 planes, type 1: 4096 5120, 64 32 33",
         {0: 4, 1: 4}, {2: 0, 3: 0}),
        # Without rectangles the maps of the frame before hold.
        (0, 22, "1 open, 1 invalidated, aq mode at 708; 3 planes, type 1: 3072 3840, 64 32 32",
         {0: 4, 1: 4}, {2: 0, 3: 0})]


@pytest.mark.parametrize("build, place", [
    (128, 704), (129, 704), (130, 704), (132, 704), (133, 704), (135, 704), (138, 712), (142, 708)])
def test_each_build_has_its_parameter_layout(build, place, segment):
    lacking = [f"encoder_open_{other}" for other in (142, 128, 129, 130, 132, 133, 135, 138)
               if other != build]
    [frame] = reported(add(0) + attach(segment) + encode(0), 1, system=root(library(*lacking)))
    assert f"aq mode at {place};" in frame[2]


COVERED = [  # of a picture of 4 x 3 macroblocks
    ("one macroblock", [(0, 0, 16, 16)], {0}),
    ("two", [(8, 0, 16, 16)], {0, 1}),
    ("that of a pixel", [(17, 33, 1, 1)], {9}),
    ("an overhang is clipped", [(48, 32, 64, 64)], {11}),
    ("outside is skipped", [(64, 0, 16, 16), (0, 48, 16, 1), (65535, 65535, 65535, 65535)], set()),
    ("no width on an edge", [(16, 0, 0, 16)], set()),
    ("no width off an edge", [(20, 0, 0, 16)], {1}),
    ("no height off an edge", [(0, 20, 16, 0)], {4}),
    ("no width on the picture's edge", [(64, 0, 0, 16)], set()),
    ("no width past it", [(80, 0, 0, 16)], set()),
    ("everything", [(0, 0, 64, 48)], set(range(12))),
]


def test_rectangles_cover_macroblocks(segment):
    frames = [encode(0, b"".join(rectangle(*one) for one in some)) for _, some, _ in COVERED]
    found = reported(add(0) + attach(segment) + b"".join(frames), 12)
    for (what, _, cells), (_, _, _, changed, _) in zip(COVERED, found, strict=True):
        assert set(changed) == cells, what


def test_the_stream_added_last_decides_how_offsets_are_taken(segment):
    commands = add(0) + attach(segment) + encode(0, rectangle(0, 0, 16, 16, offset=-4))
    commands += add(1, bitrate=1) + encode(0, rectangle(32, 0, 1, 1, offset=-2))
    commands += add(2) + encode(0, rectangle(32, 0, 1, 1, offset=-128))
    assert [frame[3:] for frame in reported(commands, 3)] == [
        ({0: -5}, {1: 0, 2: 0}), ({2: -2}, {0: -5, 1: 0}), ({2: -129}, {0: -5, 1: 0})]


def test_a_second_add_abandons_the_first_encoder(segment):
    commands = add(0) + attach(segment) + add(0) + encode(0) + remove(0) + add(0) + encode(0)
    frames = reported(commands, 1, environment={"ASAN_OPTIONS": "detect_leaks=0"})
    assert [(key, given[:6]) for key, _, given, _, _ in frames] == [(1, "2 open"), (1, "2 open")]


def test_a_reply_has_the_time_before_and_after(segment):
    start = 1_700_000_000_999_500  # microseconds; each look at the clock is a second later
    ending = run(add(0) + attach(segment) + encode(0) * 2, fault=f"clock={start}")
    first = start // 1000 & 0xFFFFFFFF
    assert [times for _, times in timed_replies(ending.output)] == [
        [first, first + 1000], [first + 2000, first + 3000]]


@pytest.mark.parametrize("system", [None, harness.REAL], ids=["scripted", "real"])
def test_removed_streams_leave_nothing_and_steady_frames_allocate_nothing(system, segment):
    counts = Counts()
    service = Service(system=system, counts=counts)
    service.send(add(0) + attach(segment))

    def after(commands):
        service.send(commands + encode(0))
        service.reply()
        return counts.now()

    for _ in range(10):  # until buffers have their size
        after(add(1) + encode(1) + remove(1))
        service.reply()
    held = counts.now()[1]
    for _ in range(10):
        service.send(add(1) + encode(1))
        service.reply()
        assert after(remove(1))[1] == held
    assert len({after(b"")[0] for _ in range(40)}) == 1
    assert service.finish().status == 0
