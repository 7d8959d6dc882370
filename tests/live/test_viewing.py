# SPDX-License-Identifier: BSD-2-Clause
"""qora-view on streams of the recorder and of qora-encode, and its window on a real screen."""

import subprocess

import pytest

import harness
from screens import RECORD, Recording, Screen, eventually, likeness, run

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


def test_keys_pause_step_and_go_on(clip, tmp_path):
    coded, saved = tmp_path / "slow.264", tmp_path / "saved.png"
    run(ENCODE, "--quiet", "--no-rectangles", clip, "-o", coded)
    with Screen("320x240") as screen:
        viewer = screen.start(VIEW, "--fps", "2", coded)
        window = screen.call("xdotool", "search", "--sync", "--onlyvisible", "--name", "slow.264").split()[0]
        name = lambda: screen.call("xdotool", "getwindowname", window).strip()
        number = lambda: int(name().split("frame ")[1].split(",")[0])
        press = lambda key: screen.call("xdotool", "mousemove", "100", "100", "key", key)
        press("space")
        eventually(lambda: name().endswith("paused"))
        paused = number()
        press("s")
        eventually(lambda: number() == paused + 1)
        assert view("--frame", str(paused + 1), "--png", saved, coded) == (0, "", "")
        eventually(lambda: likeness(screen.picture(tmp_path / "shown.png"), saved) > 25)  # 17 are its neighbours
        press("space")
        eventually(lambda: number() > paused + 1)
        viewer.terminate()


def test_a_pipe_shows_the_screen_as_it_is(tmp_path):
    with Screen() as shown, Screen() as screen:
        shown.terminal("seq 15; exec cat")
        recorder = subprocess.Popen([RECORD, "--quiet", "--cursor", "off", "--display", shown.name, "-o", "-"],
                                    stdout=subprocess.PIPE)
        viewer = subprocess.Popen([VIEW, "-"], stdin=recorder.stdout, env=screen.environment)
        recorder.stdout.close()
        for what in ("here", "there"):
            shown.call("xdotool", "type", what)
            before = shown.picture(tmp_path / "before.png")
            eventually(lambda: likeness(screen.picture(tmp_path / "now.png"), before) > 30)
        viewer.terminate()
        assert viewer.wait(timeout=harness.HANG) == 0
        shown.call("xdotool", "type", "nobody")  # which the recorder notices now
        assert recorder.wait(timeout=harness.HANG) != 0
