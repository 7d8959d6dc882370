#!/usr/bin/env python3
# SPDX-License-Identifier: BSD-2-Clause
"""A parent in Python with nothing but its standard library: raw I420 in, H.264 (Annex B) out.

    encode_clip.py SERVICE CODEC_ROOT WIDTHxHEIGHT CLIP.i420 OUTPUT.264

docs/protocol.md has every byte. The pictures stand in a System V segment of ours; a frame is one
command, answered by a head of 20 bytes and the coded bytes.
"""

import ctypes
import os
import struct
import subprocess
import sys

libc = ctypes.CDLL(None, use_errno=True)
libc.shmat.restype = ctypes.c_void_p
libc.shmat.argtypes = [ctypes.c_int, ctypes.c_void_p, ctypes.c_int]
IPC_PRIVATE, IPC_RMID = 0, 0


class Segment:
    """Shared memory for one picture, gone when both sides have let go of it or ended."""

    def __init__(self, size):
        self.id = libc.shmget(IPC_PRIVATE, ctypes.c_size_t(size), 0o600)
        address = libc.shmat(self.id, None, 0) if self.id != -1 else None
        if address in (None, ctypes.c_void_p(-1).value):
            error = ctypes.get_errno()
            raise OSError(error, os.strerror(error))
        self.bytes = (ctypes.c_char * size).from_address(address)
        libc.shmctl(self.id, IPC_RMID, None)


def command(kind, body, argument=0):
    return struct.pack("<IBB", 6 + len(body), kind, argument) + body


def add_stream(stream, width, height):
    # One thread, no bitrate: constant quality. The argument 4 asks for start codes.
    return command(0, struct.pack("<BBHBBHH", stream, 1, 0, 0, 51, width, height), 4)


def attach_segment(segment):
    return command(3, struct.pack("<xxi", segment))


def encode_frame(stream, width, height):
    luma, chroma = width * height, width // 2 * (height // 2)
    planes = (0, width, luma, width // 2, luma + chroma, width // 2)
    everything = struct.pack("<bxxxHHHH", 0, 0, 0, width, height)
    head = struct.pack("<BBxxxxI6II", stream, 0, len(everything), *planes, 0)
    return command(2, head + everything)


def read_exactly(file, count):
    data = file.read(count)
    if len(data) < count:
        raise EOFError("the service ended")
    return data


def read_reply(file):
    """The access unit; the head also has the key flag, the quantizer and two clock readings."""
    size, kind, key, quantizer, _, length, begun, ended = struct.unpack(
        "<IBBBBIII", read_exactly(file, 20))
    return read_exactly(file, length)


def main():
    service, root, size, clip, output = sys.argv[1:]
    width, height = map(int, size.split("x"))
    picture = width * height * 3 // 2
    segment = Segment(picture)
    child = subprocess.Popen([service], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                             env={**os.environ, "QORA_SYSTEM": root})
    child.stdin.write(attach_segment(segment.id) + add_stream(0, width, height))
    with open(clip, "rb") as pictures, open(output, "wb") as coded:
        while len(data := pictures.read(picture)) == picture:
            segment.bytes[:] = data  # the service has answered, so nobody reads the segment now
            child.stdin.write(encode_frame(0, width, height))
            child.stdin.flush()
            coded.write(read_reply(child.stdout))
    child.stdin.close()  # which ends the service
    return child.wait()


if __name__ == "__main__":
    if len(sys.argv) != 6:
        sys.exit(__doc__)
    sys.exit(main())
