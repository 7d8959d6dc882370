# SPDX-License-Identifier: BSD-2-Clause
"""Eight streams with the real encoder for as long as QORA_SECONDS says: blocks, memory, descriptors
and mappings must stay.

In the first third of the time streams and the segment are replaced between the frames, all the
while; now and then all streams but the last are removed, and as many blocks must be held as ever.
Then the streams stay, and what the service takes is measured.
"""

import os
import random
import time

from harness import (REAL, SECONDS, Counts, Segment, Service, add, attach, attached, copy,
                     detach, encode, planes, rectangle, remove)

WIDTH, HEIGHT, STREAMS = 640, 360, 7
LAST = STREAMS  # a small stream, which is never removed
BYTES = WIDTH * HEIGHT * 3 // 2
CYCLES = min(int(6 * SECONDS), 10000)  # of streams and of the segment
RESTS = 20  # looks at the service with its last stream alone
FRAMES = 100  # a second, over all streams: the other core is for other tests
WARM_UP = 30  # seconds after the last replacement
GROWTH = 512  # KiB from then on


def add_stream(stream):
    """Odd streams have a bitrate: both kinds of rate control run."""
    return add(stream, WIDTH, HEIGHT, bitrate=stream % 2 * 800, qp=(10, 45))


def measure(pid):
    """Resident KiB, descriptors, mappings."""
    with open(f"/proc/{pid}/statm") as statm, open(f"/proc/{pid}/maps") as maps:
        return int(statm.read().split()[1]) * 4, len(os.listdir(f"/proc/{pid}/fd")), len(list(maps))


class Soak:
    def __init__(self, segment):
        self.counts = Counts()
        self.service = Service(system=REAL, counts=self.counts)
        self.segment, self.view, self.chance = segment, segment.map(), random.Random(1)
        self.view[:] = self.chance.randbytes(STREAMS * BYTES)
        self.frames = self.cycles = 0
        self.service.send(attach(segment.id) + add(LAST) + b"".join(map(add_stream, range(STREAMS))))

    def answered(self, command):
        self.service.send(command)
        assert self.service.reply().payload
        self.frames += 1

    def encode_all(self):
        """Each stream has a block of new noise, and now and then copies and an invalidation."""
        for stream in range(STREAMS):
            x, y, to_x, to_y = (self.chance.randrange(HEIGHT - 100) for _ in range(4))
            for start in range(stream * BYTES + y * WIDTH + x, stream * BYTES + (y + 32) * WIDTH, WIDTH):
                self.view[start:start + 64] = self.chance.randbytes(64)
            self.answered(encode(
                stream, rectangle(x, y, 64, 32, self.chance.randrange(-8, 8)),
                copy((x, y), (to_x, to_y), 90, 90) if self.chance.random() < 0.3 else b"",
                layout=planes(WIDTH, HEIGHT, stream * BYTES),
                invalidate=self.chance.random() < 0.01))
        self.answered(encode(LAST))

    def cycle(self):
        self.service.send(remove(self.cycles % STREAMS) + add_stream(self.cycles % STREAMS)
                          + detach(self.segment.id) + attach(self.segment.id))
        self.cycles += 1

    def blocks_at_rest(self):
        self.service.send(b"".join(map(remove, range(STREAMS))))
        self.answered(encode(LAST))
        held = self.counts.now()[1]
        self.service.send(b"".join(map(add_stream, range(STREAMS))))
        return held


def test_soak():
    with Segment(STREAMS * BYTES) as segment:
        soak = Soak(segment)
        rests, samples, begun = [], [], time.monotonic()
        while (gone := time.monotonic() - begun) < SECONDS or soak.cycles < CYCLES:
            share = min(3 * gone / SECONDS, 1)
            while soak.cycles < int(share * CYCLES):
                soak.cycle()
            soak.encode_all()
            if len(rests) < int(share * RESTS) and soak.cycles < CYCLES:
                rests.append(soak.blocks_at_rest())
            if gone > SECONDS / 3 + WARM_UP:
                samples.append(measure(soak.service.pid))
            time.sleep(max(0, begun + soak.frames / FRAMES - time.monotonic()))
        assert soak.service.finish().status == 0 and attached(segment.id) == 1  # our own
    assert len(set(rests)) <= 1, rests
    if samples:
        assert max(samples)[0] - samples[0][0] <= GROWTH
        assert len({sample[1:] for sample in samples}) == 1, "descriptors or mappings changed"
