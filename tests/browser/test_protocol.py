# SPDX-License-Identifier: BSD-2-Clause
"""What a viewer may send, and what becomes of one that sends something else."""

import os
import random
import struct
import time

import pytest
import websocket

from conftest import PATIENCE, Screen, Server, Viewer, eventually


def frames(viewer, count):
    """The next binary messages; each is acknowledged."""
    received = []
    while len(received) < count:
        kind, data = viewer.recv_data()
        if kind == websocket.ABNF.OPCODE_BINARY:
            received.append(data)
            viewer.send(f"ack {len(received)}")
    return received


def ends(viewer):
    """Whether the server ends the connection; what it sent before is read. Hangs otherwise."""
    try:
        while viewer.recv_data()[0] != websocket.ABNF.OPCODE_CLOSE:
            pass
    except websocket.WebSocketTimeoutException:
        return False
    except (websocket.WebSocketException, OSError):
        pass
    return True


def test_a_frame_says_where_the_picture_is_another(serve, screen):
    viewer = Viewer(serve().socket())

    def comes(*box):
        eventually(lambda: struct.pack("<4H", *box) in viewer.boxes)
    comes(0, 0, 640, 480)
    screen.fill(0x336699, 130, 130, 40, 20)
    comes(112, 112, 80, 64)
    screen.fill(0x996633, 630, 470, 10, 10)
    comes(608, 448, 32, 32)


def test_the_screens_end_is_the_servers_even_if_nobody_watches():
    screen = Screen()
    server = Server(screen)
    screen.process.kill()
    assert server.process.wait(PATIENCE) == 1
    assert server.says(f"the X server {screen.name} is gone")
    screen.process.wait()


@pytest.mark.parametrize("header", [
    {"origin": "http://elsewhere.example"}, {"origin": "null"}, {"host": "elsewhere.example"},
    {"origin": "http://127.0.0.1:1"}, {"suppress_origin": True}])
def test_another_site_is_refused(serve, header):
    server = serve()
    with pytest.raises((websocket.WebSocketException, OSError)):
        server.socket(**header).recv()
    assert server.says("from another site")


@pytest.mark.parametrize("token", ["0" * 32, "x", "control", "", "0" * 31])
def test_a_wrong_token_is_refused(serve, token):
    server = serve()
    viewer = server.socket(token="")
    viewer.send(f"token {token}")
    assert viewer.recv() == "refused"
    assert server.says("wrong token")


def test_viewing_gives_no_right_to_type(serve):
    server = serve("--control")
    viewer = server.socket()
    assert viewer.recv() == "screen 640 480 view"
    viewer.send("press KeyA")
    assert ends(viewer)
    control = server.socket(token=server.addresses[1].split("#")[1])
    assert control.recv() == "screen 640 480 control"


def nonsense(count):
    """Messages of every kind that no page sends."""
    chance = random.Random(7)
    fixed = ["", " ", "ack", "ack x", "ack -1", "ack 99999", "ack 1 2", "ack 99999999999999999999",
             "move 1 1", "press KeyA", "token", "key now", "pause 1", "screen 1 1", "\0", "é" * 100,
             b"", b"\0" * 10, b"\xff" * 4096, "a" * 4097, b"a" * 100000, "text hello", "wheel 1"]
    yield from fixed
    for _ in range(count - len(fixed)):
        body = bytes(chance.randrange(256) for _ in range(chance.randrange(1, 300)))
        yield body if chance.random() < 0.5 else "~" + body.decode("latin1")


def test_nonsense_is_cut_off_and_hurts_nobody(serve):
    server = serve("--viewers", "200")
    good = server.socket()
    frames(good, 1)
    messages = list(nonsense(120))
    for message in messages:
        viewer = server.socket()
        viewer.send(message, websocket.ABNF.OPCODE_BINARY if isinstance(message, bytes)
                    else websocket.ABNF.OPCODE_TEXT)
        assert ends(viewer), message
    eventually(lambda: sum("is cut off" in line for line in server.log) == len(messages))
    server.socket().close()
    assert server.process.poll() is None and good.connected


def test_a_flood_is_cut_off(serve):
    server = serve()
    viewer = server.socket()
    with pytest.raises(OSError):
        for _ in range(100000):
            viewer.send("key")
    assert server.says("too many messages")


def test_bytes_that_are_no_protocol(serve):
    server = serve()
    import socket
    chance = random.Random(3)
    for size in (1, 10, 1000, 20000):
        with socket.create_connection(("127.0.0.1", server.port)) as raw:
            raw.sendall(bytes(chance.randrange(256) for _ in range(size)))
    frames(server.socket(), 1)


def test_who_does_not_log_in_is_cut_off(serve):
    server = serve()
    assert ends(server.socket(token=""))
    assert server.says("did not log in")


def test_there_are_no_more_viewers_than_allowed(serve):
    server = serve("--viewers", "2")
    viewers = [server.socket() for _ in range(2)]
    with pytest.raises((websocket.WebSocketException, OSError)):
        server.socket().recv()
    viewers[0].close()
    eventually(lambda: try_socket(server))


def try_socket(server):
    try:
        return server.socket()
    except (websocket.WebSocketException, OSError):
        return None


def test_many_come_and_go_and_nothing_is_left(serve, screen):
    server = serve()
    rounds = int(os.environ.get("QORA_VIEWERS", 1000))
    for number in range(rounds):
        viewer = server.socket()
        viewer.recv()
        viewer.close() if number % 2 else viewer.sock.close()
        if number == 100:
            time.sleep(0.2)
            descriptors, memory = server.usage()
    eventually(lambda: server.usage()[0] <= descriptors)
    assert server.usage()[1] < memory + 4096


def test_twenty_viewers_see_the_same(serve, screen):
    server = serve("--viewers", "20")
    viewers = [server.socket() for _ in range(20)]
    for viewer in viewers:
        frames(viewer, 1)
    screen.fill(0x3366CC)
    seen = {frames(viewer, 1)[0] for viewer in viewers}
    assert len(seen) <= 3  # frames that came while others still had their key frame


@pytest.mark.parametrize("join", [lambda socket: socket, lambda socket: Viewer(socket, stuck=True)],
                         ids=["says nothing", "answers but shows nothing"])
def test_who_shows_no_frame_holds_nobody_up(serve, screen, join):
    server = serve("--max-rate", "100")
    viewer = Viewer(server.socket())
    kept = []
    for _ in range(4):  # each gets a key frame that is never acknowledged
        screen.scribble(seconds=1.1)
        kept.append(join(server.socket()))
    before = viewer.frames

    def goes_on():
        screen.scribble(seconds=0.1)
        return viewer.frames > before + 20
    eventually(goes_on)


def test_the_secrets_stay_good_in_a_file(serve, screen, tmp_path):
    path = tmp_path / "tokens"
    tokens = [serve("--tokens", path).token for _ in range(2)]
    assert tokens[0] == tokens[1] and path.stat().st_mode & 0o77 == 0
