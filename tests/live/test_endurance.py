# SPDX-License-Identifier: BSD-2-Clause
"""A recording of as many seconds as QORA_SECONDS says (1800): memory stays, and so do the times.
-s prints the figures."""

import os
import pathlib
import re
import statistics
import time

from screens import Recording, Screen, run, stamps

SECONDS = float(os.environ.get("QORA_SECONDS", 1800))
SHADES = ("#202020", "#606060", "#a0a0a0", "#e0e0e0")


def resident(recording):
    """MiB that the recorder and its service have for themselves: of pictures in shared memory, and of
    libraries, what counts is what was touched."""
    text = "".join(pathlib.Path(f"/proc/{pid}/status").read_text()
                   for pid in (recording.process.pid, recording.service()))
    return sum(int(size) for size in re.findall(r"RssAnon:\s*(\d+)", text)) / 1024


def shades_of(path):
    """The number of its shade for each picture, by the mean of a corner."""
    raw = path.with_suffix(".gray")
    run("ffmpeg", "-v", "error", "-i", path, "-vf", "crop=64:64:0:0,scale=1:1:flags=area,format=gray",
        "-fps_mode", "passthrough", "-f", "rawvideo", raw)
    return [luma // 64 for luma in raw.read_bytes()]


def test_memory_and_times_stay(tmp_path):
    drawn, sizes = [], []
    with Screen("1280x720") as screen:
        screen.terminal("while sleep 0.2; do ls -l /usr/bin | head -$((RANDOM % 9 + 1)); done", "80x30+200+200")
        recording = Recording(screen, tmp_path / "long.mkv")
        began = time.monotonic()
        while time.monotonic() - began < SECONDS:
            time.sleep(0.43)
            screen.call("xsetroot", "-solid", SHADES[len(drawn) % len(SHADES)])
            drawn.append(time.monotonic())
            sizes.append(resident(recording))
        assert recording.stop() == (0, "")
    times, _ = stamps(recording.path)
    shades = shades_of(recording.path)
    shown = [at for at, one, before in zip(times[1:], shades[1:], shades) if one != before]
    assert len(shown) == len(drawn) and len(drawn) > 10
    late = [(at - shown[0]) - (then - drawn[0]) for at, then in zip(shown, drawn)]
    tenth = len(late) // 10
    drift = statistics.median(late[-tenth:]) - statistics.median(late[:tenth])
    growth = sizes[-1] - sizes[tenth]
    print(f"{SECONDS:.0f} s, {len(times)} pictures: drift {drift * 1000:.1f} ms, late by "
          f"{min(late) * 1000:.1f} to {max(late) * 1000:.1f} ms; memory {sizes[tenth]:.1f} MiB, growth {growth:.2f}")
    assert abs(drift) < 0.02
    assert growth < 2
