#!/usr/bin/env python3
# SPDX-License-Identifier: BSD-2-Clause
"""A parent in Python over the C library: raw I420 in, H.264 (Annex B) out.

    encode_clip_session.py SERVICE CODEC_ROOT WIDTHxHEIGHT CLIP.i420 OUTPUT.264

QORA_SESSION_LIBRARY names the library when it is not installed. The session owns the service and
the pictures' memory; its header, qora/session/qora_session.h, says what every field means.
"""

import ctypes
import os
import sys
from ctypes import POINTER, byref, c_char_p, c_int32, c_int64, c_size_t, c_uint32, c_void_p


class Options(ctypes.Structure):
    _fields_ = [("struct_size", c_uint32), ("error_descriptor", c_int32), ("keep_log", c_int32),
                ("command_timeout_ms", c_int32), ("reply_timeout_ms", c_int32),
                ("max_reply_bytes", c_uint32), ("frame_interval_us", c_int64),
                ("service_path", c_char_p), ("codec_root", c_char_p), ("sandbox_path", c_char_p)]


class Stream(ctypes.Structure):
    _fields_ = [(name, c_int32) for name in (
        "struct_size", "id", "width", "height", "rate_control", "bitrate", "quality",
        "lowest_quantizer", "highest_quantizer", "threads", "start_codes", "frames_in_flight")]


class Picture(ctypes.Structure):
    _fields_ = [("plane", c_void_p * 3), ("stride", c_int32 * 3), ("width", c_int32),
                ("height", c_int32)]


class Area(ctypes.Structure):
    _fields_ = [(name, c_int32) for name in ("x", "y", "width", "height")]


class Frame(ctypes.Structure):  # the fields that are used here; the library fills in no more
    _fields_ = [("struct_size", c_uint32), ("stream", c_int32), ("key_frame", c_int32),
                ("quantizer", c_int32), ("bytes", c_void_p), ("size", c_size_t)]


library = ctypes.CDLL(os.environ.get("QORA_SESSION_LIBRARY", "libqora-session.so.0"))
library.qora_session_create.restype = c_void_p
library.qora_session_error_text.restype = c_char_p
for name, *arguments in (
        ("destroy",), ("error_text",), ("start", POINTER(Options)), ("stop",),
        ("add_stream", POINTER(Stream)), ("acquire", c_int32, c_int32, POINTER(Picture)),
        ("encode", c_int32, POINTER(Picture), POINTER(Area), c_size_t, c_void_p, c_size_t),
        ("read_frame", POINTER(Frame), c_int32)):
    getattr(library, "qora_session_" + name).argtypes = [c_void_p, *arguments]
library.qora_session_options_init.argtypes = [c_void_p, c_size_t]
library.qora_session_stream_init.argtypes = [c_void_p, c_size_t]


class Session:
    """One stream; every error of the library is an OSError with its text."""

    def __init__(self, service, root, width, height):
        self.handle = library.qora_session_create()
        options, stream = Options(), Stream()
        library.qora_session_options_init(byref(options), ctypes.sizeof(options))
        options.service_path, options.codec_root = os.fsencode(service), os.fsencode(root)
        options.frame_interval_us = 24 * 3600 * 10**6  # a clip has no time to sharpen what is still
        self.call("start", options)
        library.qora_session_stream_init(byref(stream), ctypes.sizeof(stream))
        stream.width, stream.height, stream.quality, stream.threads = width, height, 0, 1
        self.call("add_stream", stream)

    def call(self, name, *arguments):
        result = getattr(library, "qora_session_" + name)(self.handle, *arguments)
        if result < 0:
            text = library.qora_session_error_text(self.handle).decode()
            raise OSError(-result, text)
        return result

    def encode(self, data):
        """The access unit of one picture."""
        picture = Picture()
        self.call("acquire", 0, 0, picture)
        offset = 0
        for plane in range(3):
            shift = int(plane > 0)
            width, height = picture.width >> shift, picture.height >> shift
            for row in range(height):
                place = picture.plane[plane] + row * picture.stride[plane]
                ctypes.memmove(place, data[offset:offset + width], width)
                offset += width
        everything = Area(0, 0, picture.width, picture.height)
        self.call("encode", 0, picture, everything, 1, None, 0)
        frame = Frame(ctypes.sizeof(Frame))
        self.call("read_frame", frame, -1)
        return ctypes.string_at(frame.bytes, frame.size)


def main():
    service, root, size, clip, output = sys.argv[1:]
    width, height = map(int, size.split("x"))
    session = Session(service, root, width, height)
    with open(clip, "rb") as pictures, open(output, "wb") as coded:
        while len(data := pictures.read(width * height * 3 // 2)) == width * height * 3 // 2:
            coded.write(session.encode(data))
    session.call("stop")
    library.qora_session_destroy(session.handle)


if __name__ == "__main__":
    if len(sys.argv) != 6:
        sys.exit(__doc__)
    main()
