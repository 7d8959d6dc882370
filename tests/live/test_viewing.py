# SPDX-License-Identifier: BSD-2-Clause
"""qora-view on streams of the recorder and of qora-encode, and its window on a real screen."""

import subprocess

import pytest

import harness
from screens import Recording, Screen, eventually, likeness, run

VIEW, ENCODE = harness.BUILD / "qora-view", harness.BUILD / "qora-encode"


def view(*words):
    done = subprocess.run([str(word) for word in (VIEW, *words)], capture_output=True, text=True,
                          timeout=harness.HANG)
    return done.returncode, done.stdout, done.stderr


@pytest.fixture(scope="module")
def clip(tmp_path_factory):
    path = tmp_path_factory.mktemp("clip") / "clip.y4m"
    run("ffmpeg", "-v", "error", "-f", "lavfi", "-i",
        "testsrc2=s=320x240:r=25:d=1,scroll=vertical=0.0333", "-pix_fmt", "yuv420p", path)
    return path


@pytest.mark.parametrize("options", [[], ["--moves"]])
def test_every_picture_is_the_sources(clip, options, tmp_path):
    coded = tmp_path / "coded.264"
    run(ENCODE, "--quiet", "--verify", "--no-rectangles" if not options else "--moves", clip, "-o",
        coded)
    status, said, _ = view("--verify", clip, coded)
    figures = dict(line.split(maxsplit=1) for line in said.splitlines())
    assert status == 0 and figures["frames"] == "25" and figures["drift"] == "none"
    assert float(figures["psnr"].split()[0]) > 45


@pytest.mark.parametrize("harm, status, said", [
    (lambda data: data[:-200], 3, "damaged or cut off"),
    (lambda data: data[:9000] + b"xx" + data[9002:], 3, "damaged or cut off"),
    (lambda data: b"no stream at all", 1, "neither a stream with moves nor H.264"),
    (lambda data: b"", 1, "it has only 0 pictures")])
def test_damage_is_said_in_one_line(clip, harm, status, said, tmp_path):
    coded = tmp_path / "coded.264"
    run(ENCODE, "--quiet", "--no-rectangles", clip, "-o", coded)
    coded.write_bytes(harm(coded.read_bytes()))
    ended, _, line = view("--at", "9", "--png", tmp_path / "last.png", coded)
    assert ended == status and said in line and line.count("\n") == 1


def test_the_window_shows_the_picture(tmp_path):
    with Screen() as screen:
        screen.terminal("seq 15; exec cat")
        recording = Recording(screen, tmp_path / "still.qora", "--duration", "1")
        assert recording.end() == (0, "")
    saved = tmp_path / "saved.png"
    assert view("--at", "9", "--png", saved, recording.path) == (0, "", "")
    with Screen() as screen:
        viewer = screen.start(VIEW, recording.path)
        screen.call("xdotool", "search", "--sync", "--onlyvisible", "--name", "still.qora.*end")
        eventually(lambda: likeness(screen.picture(tmp_path / "shown.png"), saved) > 30)
        screen.call("xdotool", "mousemove", "100", "100", "key", "q")
        assert viewer.wait(timeout=harness.HANG) == 0
