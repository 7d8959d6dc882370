# SPDX-License-Identifier: BSD-2-Clause
"""qora-record against a real X server with real programs."""

import contextlib
import os
import random
import re
import shutil
import signal
import time

import pytest

from screens import (Compositor, Recording, Screen, crop, eventually, frames, last_picture,
                     likeness, probe, shows_the_screen, stamps)

live = pytest.mark.skipif(os.environ.get("QORA_FORM") != "live", reason="takes its time: ctest -L live")


@pytest.fixture(scope="module")
def desk():
    """One screen for all tests that leave it as it was."""
    with Screen() as screen:
        yield screen


def type_words(screen):
    screen.terminal()
    return ["xdotool", "type", "--delay", "60", "some words"]


def scroll(screen):
    screen.terminal("i=0; while sleep 0.04; do i=$((i + 1)); echo line $i of many; "
                    "[ $i -lt 60 ] || exec cat; done")
    return ["sleep", "3.5"]


def drag(screen):
    number = screen.terminal("seq 15; exec cat", "30x16+20+20")
    steps = [word for at in range(20, 200, 9) for word in ("windowmove", number, str(at), str(at // 2),
                                                          "sleep", "0.03")]
    return ["xdotool", *steps]


ACTS = [pytest.param(type_words, ".mp4", id="typing"),
        pytest.param(scroll, ".264", id="scrolling", marks=live),
        pytest.param(drag, ".mkv", id="dragging", marks=live)]


@pytest.mark.parametrize("act, suffix", ACTS)
def test_the_last_picture_is_what_the_screen_shows(act, suffix, tmp_path):
    with Screen() as screen:
        words = act(screen)
        recording = Recording(screen, tmp_path / f"act{suffix}")
        screen.call(*words)
        time.sleep(0.3)
        assert recording.stop() == (0, "")
        assert frames(recording.path) > 3
        assert shows_the_screen(recording.path, screen, tmp_path)


@live
def test_a_still_screen_makes_no_frames_and_time_goes_on(desk, tmp_path):
    recording = Recording(desk, tmp_path / "still.mp4", "--duration", "3")
    assert recording.end() == (0, "")
    times, length = stamps(recording.path)
    assert length == pytest.approx(3, abs=0.05)
    # One picture, what it is sealed with, and the one that says that it stood until the end.
    assert len(times) <= 4 and times[0] == 0


@live
def test_pictures_are_shown_from_their_own_time_on(desk, tmp_path):
    recording = Recording(desk, tmp_path / "times.mkv")
    began, changes = time.monotonic(), [0]
    for shade in ("#303030", "#c0c0c0", "#808080"):
        time.sleep(0.7)
        desk.call("xsetroot", "-solid", shade)
        changes.append(time.monotonic() - began)
    time.sleep(0.4)
    recording.stop()
    times, _ = stamps(recording.path)
    # Each change has its picture; how late a loaded machine is with it is not of interest here.
    for earlier, change in zip(changes, changes[1:]):
        assert any(earlier < at <= change + 0.5 for at in times)
    assert times == sorted(set(times))


@live
@pytest.mark.parametrize("option, corner", [("--geometry", (50, 30)), ("--window", (100, 57))])
def test_a_part_of_the_screen(option, corner, tmp_path):
    with Screen() as screen:
        number = screen.terminal("seq 30; exec cat", "40x20+21+33")
        part = number if option == "--window" else "201x101+50+30"
        recording = Recording(screen, tmp_path / "film.mp4", option, part)
        if option == "--window":
            screen.call("xdotool", "windowmove", number, "100", "57")
        time.sleep(0.5)
        assert recording.stop() == (0, "")
        film = last_picture(recording.path)
        # An odd side is one longer in what is coded, with the edge repeated.
        width, height = probe(film, "stream=width,height")[0]
        assert likeness(film, crop(screen.picture(tmp_path / "all.png"), width, height, *corner)) > 30


@live
def test_a_screen_whose_size_changes_goes_on(tmp_path):
    with Screen("800x600") as screen:
        screen.terminal("seq 15; exec cat")
        recording = Recording(screen, tmp_path / "size.mp4")
        raw = Recording(screen, tmp_path / "size.264")
        screen.call("xrandr", "--newmode", "small", *"20 640 680 700 800 480 481 484 500".split())
        screen.call("xrandr", "--addmode", "screen", "small")
        screen.call("xrandr", "--output", "screen", "--mode", "small")
        eventually((tmp_path / "size.1.mp4").exists)
        screen.call("xdotool", "type", "more")
        time.sleep(0.5)
        assert recording.stop() == raw.stop() == (0, "")
        assert probe(tmp_path / "size.mp4", "stream=width,height") == [["800", "600"]]
        assert probe(tmp_path / "size.1.mp4", "stream=width,height") == [["640", "480"]]
        assert shows_the_screen(tmp_path / "size.1.mp4", screen, tmp_path)
        sizes = probe(raw.path, "frame=width,height")
        assert sizes[0] == ["800", "600"] and sizes[-1] == ["640", "480"]


@live
@pytest.mark.parametrize("ends, said", [("server", "the X server {} is gone"),
                                        ("window", "the window was closed")])
def test_the_screens_end_is_the_recordings(ends, said, tmp_path):
    with Screen() as screen:
        number = screen.terminal("sleep 1" if ends == "window" else "cat")
        recording = Recording(screen, tmp_path / "end.mkv", *["--window", number][:2 * (ends == "window")])
        if ends == "server":
            eventually(lambda: recording.path.stat().st_size > 0)
            screen.server.kill()
        assert recording.end() == (3, f"qora-record: {said.format(screen.name)}\n")
        assert frames(recording.path) >= 1 and last_picture(recording.path)


@live
def test_a_service_that_dies_is_started_again(tmp_path):
    with Screen() as screen:
        scroll(screen)
        recording = Recording(screen, tmp_path / "killed.mp4")
        killed = 0
        for _ in range(5):
            time.sleep(random.uniform(0.02, 0.5))
            service = eventually(recording.service)
            if service != killed:
                os.kill(service, signal.SIGKILL)
            killed = service
        time.sleep(3.5)
        assert recording.stop()[0] == 0
        assert shows_the_screen(recording.path, screen, tmp_path)


@live
@pytest.mark.parametrize("suffix", [".mp4", ".mkv"])
def test_a_recorder_that_is_killed_leaves_a_movie(suffix, tmp_path):
    with Screen() as screen:
        recording = Recording(screen, tmp_path / f"killed{suffix}")
        screen.terminal("seq 15; exec cat")
        time.sleep(1.5)  # still for so long: all of it is in the file
        recording.stop(signal.SIGKILL)
        assert shows_the_screen(recording.path, screen, tmp_path)


@live
@pytest.mark.parametrize("options", [["-extension", "MIT-SHM"], ["-listen", "tcp"]])
def test_pixels_come_without_descriptors_too(options, tmp_path):
    with Screen("640x480", *options) as screen:
        screen.terminal("seq 15; exec cat")
        screen.call("xhost", "+")
        screen.name = ("127.0.0.1" if "tcp" in options else "") + screen.name
        recording = Recording(screen, tmp_path / "pixels.264")
        time.sleep(0.4)
        assert recording.stop() == (0, "")
        assert shows_the_screen(recording.path, screen, tmp_path)


@pytest.mark.parametrize("server, options, said", [
    ([], ["--display", ":65000"], "cannot connect to the X server :65000"),
    ([], ["--geometry", "64x64+600+0"], "the region lies outside the screen of 640x480"),
    ([], ["--window", "0x7fffffff"], "has no window 2147483647"),
    pytest.param(["-extension", "DAMAGE"], [], "has no extension DAMAGE", marks=live),
    pytest.param(["-extension", "XFIXES"], [], "has no extension XFIXES", marks=live)])
def test_what_is_not_there_is_said_in_one_line(desk, server, options, said, tmp_path):
    with Screen("640x480", *server) if server else contextlib.nullcontext(desk) as screen:
        recording = Recording(screen, tmp_path / "none.mp4", "--duration", "1", *options)
        status, line = recording.end()
        assert status == 1 and line.count("\n") == 1 and said in line
        assert not recording.path.exists()


@live
def test_the_pointer_is_drawn_where_it_is(desk, tmp_path):
    path = tmp_path / "pointer.mkv"
    recording = Recording(desk, path, "--cursor", "on")
    desk.call("xdotool", *"mousemove 300 200 sleep 0.5 mousemove 100 100 sleep 0.5".split())
    recording.stop()
    pictures = last_picture(path), desk.picture(tmp_path / "plain.png")
    there, before = ([crop(picture, 32, 32, *corner) for picture in pictures]
                     for corner in ((96, 96), (290, 190)))
    assert likeness(*there) < 30 and likeness(*before) > 38


@live
def test_key_frames_come_while_something_changes(desk, tmp_path):
    recording = Recording(desk, tmp_path / "keys.mp4", "--key-interval", "1")
    for step in range(15):
        desk.call("xsetroot", "-solid", f"#{step:x}0{step:x}0{step:x}0")
        time.sleep(0.2)
    recording.stop()
    keys = [row for row in probe(recording.path, "packet=flags") if "K" in row[0]]
    assert 3 <= len(keys) <= 5


@live
def test_a_stream_copies_what_scrolls_and_has_an_end(tmp_path):
    with Screen() as screen:
        words = scroll(screen)
        path = tmp_path / "stream"
        with open(path, "wb") as output:
            recording = Recording(screen, path, "-o", "-", stdout=output)
            screen.call(*words)
            assert recording.stop() == (0, "")
        heads = re.findall(rb"QFR\xfe(..)(..)(.{8})", path.read_bytes(), re.DOTALL)
        flags, copies, times = ([int.from_bytes(field, "little") for field in fields]
                                for fields in zip(*heads))
        assert flags[0] == 1 and flags[-1] == 2 and any(copies)
        assert times == sorted(set(times))


@live
@pytest.mark.skipif(not shutil.which("sway"), reason="needs sway, foot and grim")
def test_a_wayland_output_and_its_size(tmp_path):
    with Compositor() as screen:
        recording = Recording(screen, tmp_path / "output.mp4")
        screen.start("foot", "sh", "-c", "seq 12; exec cat")
        time.sleep(1)
        screen.call("swaymsg", "output", "HEADLESS-1", "mode", "800x600@60Hz")
        eventually((tmp_path / "output.1.mp4").exists)
        time.sleep(1)
        assert recording.stop() == (0, "")
        assert probe(tmp_path / "output.mp4", "stream=width,height") == [["640", "480"]]
        assert shows_the_screen(tmp_path / "output.1.mp4", screen, tmp_path)
        again = Recording(screen, tmp_path / "again.mkv")
        screen.server.kill()
        assert again.end() == (3, f"qora-record: the Wayland compositor {screen.name} is gone\n")
