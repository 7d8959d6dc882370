# SPDX-License-Identifier: BSD-2-Clause
"""Every line and every end of the service, brought about from outside."""

import os
import re

import pytest

import harness
from harness import (KIB64, MIB, SCRIPTED, add, attach, copy, detach, encode, entry_of, library, listed,
                     pattern, raw, rectangle, remove, root, run)

MALFORMED = ["Error: Can't add 'frame' in context [A].", "Error: Error is 22, 'Invalid argument'."]
NO_MEMORY = "Error: Error is 12, 'Cannot allocate memory'."
NO_LIBRARY = "Warning: Can't load H.264 codec library."
EMPTY_SLOT = "CodecFrame: WARNING! Cannot close invalid encoder for stream ID#7."
NO_REFERENCE = "CodecFrame: WARNING! Reference frame is empty."
NO_VARIABLE = "CodecLoad: WARNING! Can't find QORA_SYSTEM environment."


def frames(S, *more):
    return add(0) + attach(S) + b"".join(more)


def case(what, status, lines, send=lambda S: b"", **options):
    """`send` makes the commands from a segment's id, which is {S} in the lines; <...> is anything."""
    return pytest.param(status, [lines] if isinstance(lines, str) else lines, send, options, id=what)


CASES = [
    # --- The channel and the loop
    case("end inside a header", 0, [], lambda S: frames(S, raw(8, 0)[:3])),
    case("unknown command", 42, "Error: Invalid command '5' in context [A].",
         lambda S: frames(S, raw(6, 5))),
    case("no memory for the first buffer", 12,
         ["Error: Can't allocate 65536 bytes of memory in context [A].", NO_MEMORY],
         fault=f"size={KIB64 + 5}:12"),
    case("no memory for a larger buffer", 12,
         ["Error: Can't allocate 1048576 bytes of memory in context [B].", NO_MEMORY],
         lambda S: raw(MIB, 1, 2), fault=f"size={MIB + 5}:12"),

    # --- Streams
    case("add, first id too large", 0, "CodecFrame: ERROR! Cannot add invalid stream ID#8.",
         lambda S: add(8)),
    case("remove, id too large", 0, "CodecFrame: ERROR! Cannot remove invalid stream ID#8.",
         lambda S: remove(8)),
    case("remove of nothing, and twice", 0, [EMPTY_SLOT] * 2,
         lambda S: remove(7) + add(7) + remove(7) + remove(7)),
    case("preset refused", 38, ["CodecFrame: ERROR! Failed to get default parameters.",
                                "CodecFrame: ERROR! Failed to initialize the encoder parameters."],
         lambda S: add(0), script="preset=-1 errno=38"),
    case("profile refused", 0, ["CodecFrame: ERROR! Failed to set encoder parameters.",
                                "CodecFrame: ERROR! Failed to initialize the encoder parameters."],
         lambda S: add(0), script="profile=-1"),
    case("no encoder, as if at end of input", 0, "CodecFrame: ERROR! Failed to open the encoder.",
         lambda S: add(0), script="open=1 errno=5"),
    case("no memory for the change map", 12,
         ["CodecFrame: ERROR! Failed to allocate 16777216 bytes for the mb info map.",
          "CodecFrame: ERROR! Failed to initialize the mb maps."],
         lambda S: add(1, 65535, 65535), fault="size=16777216:12"),
    case("no memory for the quantizer map", 12,
         ["CodecFrame: ERROR! Failed to allocate 67108864 bytes for the quantizer offsets map.",
          "CodecFrame: ERROR! Failed to initialize the mb maps."],
         lambda S: add(1, 65535, 65535), fault="size=67108864:12"),
    case("no macroblock, and the widest", 0, [],
         lambda S: add(7, 0, 48) + remove(7) + add(7, 65535, 1) + remove(7)),

    # --- Frames
    case("copies past the message", 22, MALFORMED, lambda S: encode(0, k=16)),
    case("the lists' sum wraps round", 22, MALFORMED, lambda S: encode(0, r=0xFFFFFFFC, k=16)),
    case("encode, id too large", 0, "CodecFrame: ERROR! Cannot encode invalid stream ID#8.",
         lambda S: encode(8)),
    case("encode, never added, a large list", 0,
         ["CodecMain: WARNING! Reallocated buffer with size 262144.",
          "CodecFrame: ERROR! Cannot encode frame with stream ID#7 not initialized."],
         lambda S: frames(S, encode(7, rectangle() * 20000))),
    case("encode, removed", 0,
         "CodecFrame: ERROR! Cannot encode frame with stream ID#0 not initialized.",
         lambda S: frames(S, encode(0), remove(0), encode(0))),
    case("encode, no segment", 0,
         "CodecFrame: ERROR! Cannot update picture with invalid shared memory segment.",
         lambda S: add(0) + encode(0)),
    case("encode, segment removed", 0,
         "CodecFrame: ERROR! Cannot update picture with invalid shared memory segment.",
         lambda S: frames(S, encode(0), detach(S), encode(0))),
    case("odd rectangle list", 0,
         "CodecFrame: ERROR! Cannot update maps with invalid data length 13.",
         lambda S: frames(S, encode(0, bytes(13)))),
    case("warnings do not end it", 0,
         [NO_REFERENCE, "CodecFrame: WARNING! Cannot update maps with no rectangle.", NO_REFERENCE],
         lambda S: frames(S, encode(0, copies=bytes(15)), encode(0, b"", bytes(16)), encode(0)),
         script="planes=9"),
    case("rectangles outside", 0,
         ["CodecFrame: WARNING! Skipping invalid rectangle [64,8,74,20].",
          "CodecFrame: WARNING! Skipping invalid rectangle [0,48,65535,49]."],
         lambda S: frames(S, encode(0, rectangle(64, 8, 10, 12) + rectangle(0, 48, 65535, 1)))),
    case("the reconstruction goes away", 0, "CodecFrame: WARNING! Reconstructed frame is empty.",
         lambda S: frames(S, encode(0), encode(0, copies=copy((0, 0), (0, 0), 16, 16))),
         script="planes=1"),
    case("a stream added anew has no reference", 0, NO_REFERENCE,
         lambda S: frames(S, encode(0), remove(0), add(0), encode(0, copies=bytes(16))),
         script="planes=2"),
    case("encoding fails", 12, "CodecFrame: ERROR! Frame encoding failed.",
         lambda S: frames(S, encode(0)), script="encode=0 errno=12"),
    case("nobody takes the reply", 32, [], lambda S: frames(S, encode(0)), fault="writev=1:32"),

    # --- The segment
    case("attach of nothing", 22, ["CodecSegment: ERROR! Failed to attach to segment id -1.",
                                   "CodecSegment: ERROR! Error is 22 'Invalid argument'."],
         lambda S: attach(-1)),
    case("attach twice, remove, and of none", 0, [],
         lambda S: attach(S) + attach(S) + detach(S) + detach(-1)),
    case("remove of another", 0, "CodecSegment: ERROR! Cannot remove unknow segment id 77.",
         lambda S: attach(S) + detach(77)),
    case("a detach that fails goes on and leaves its errno", 1,
         ["CodecSegment: ERROR! Failed to detach from segment id {S} with address 0x<hex>.",
          "CodecSegment: ERROR! Error is 1 'Operation not permitted'.",
          "CodecFrame: ERROR! Cannot remove invalid stream ID#8."],
         lambda S: attach(S) + detach(S) + remove(8), fault="shmdt=1:1"),

    # --- Loading
    case("no variable", 0, [NO_VARIABLE] * 2 + [NO_LIBRARY], environment={"QORA_SYSTEM": None}),
    case("no library at either place", 2, NO_LIBRARY, system=(None,)),
    case("no library, and then one", 2,
         ["CodecLoad: WARNING! Can't load '{root}/lib/libx264.so' library.",
          "CodecFrame: ERROR! Cannot add invalid stream ID#8."],
         lambda S: add(8), system=(harness.ROOT / "README.md", SCRIPTED)),
    case("no memory for the first path", 12,
         ["CodecLoad: WARNING! Can't allocate {first} bytes for the library path.",
          "CodecFrame: ERROR! Cannot add invalid stream ID#8."],
         lambda S: add(8), system=(None, SCRIPTED), fault="size={first}:12"),
    case("a library that does not close", 42,
         ["Library: WARNING! Could not close library 0x<hex>.",
          "Library: WARNING! Error is 'nil'."], fault="dlclose=1:0"),
]


def missing(name, place="lib"):
    return [f"Library: WARNING! Could not resolve symbol 'x264_{name}'.",
            f"Library: WARNING! Error is '{{root}}/{place}/libx264.so: undefined symbol: x264_{name}'"]


def no_function(name):
    return f"CodecLoad: WARNING! Can't load 'x264_{name}' function."


PROBES = [f"encoder_open_{build}" for build in (142, 128, 129, 130, 132, 133, 135, 138)]
# The probe of a build that is not there leaves its errno, which a refusal then ends with.
for tried in range(1, 9):
    lacking, build = PROBES[:tried], PROBES[tried:tried + 1]
    lines = [line for name in lacking for line in missing(name)]
    CASES.append(
        case(f"loading, {build[0]}", 42, lines + ["CodecFrame: ERROR! Cannot add invalid stream ID#8."],
             lambda S: add(8), system=(lacking,)) if build else
        case("loading, no build", 2, lines + [no_function("encoder_open"), NO_LIBRARY],
             system=(lacking,)))
for name in ("encoder_reconfig", "encoder_close", "encoder_encode", "encoder_invalidate_reference",
             "encoder_get_last_quantizer", "picture_init", "param_default_preset",
             "encoder_parameters", "param_apply_profile"):
    CASES.append(case(f"loading, no {name}", 0, missing(name) + [no_function(name)],
                      lambda S: frames(S, encode(0)), system=([name], SCRIPTED)))
CASES.append(case("loading, a function lacks at the second place", 42,
                  missing("encoder_close", "codec/lib") + [no_function("encoder_close"), NO_LIBRARY],
                  system=(None, ["encoder_close"])))


def run_case(send, segment, options, **more):
    """The ending, and what stands in the lines for {name}."""
    options = options | more
    places = options.pop("system", (SCRIPTED,))
    options["system"] = root(*(library(*file) if isinstance(file, list) else file for file in places))
    names = {"S": segment, "root": options["system"], "first": len(str(options["system"])) + 16}
    if "fault" in options:
        options["fault"] = options["fault"].format(**names)
    return run(send(segment), **options), names


@pytest.mark.parametrize("status, lines, send, options", CASES)
def test_lines_and_status(status, lines, send, options, segment):
    ending, names = run_case(send, segment, options)
    expected = [line.format(**names) for line in lines]
    assert len(ending.lines) == len(expected), ending.lines
    for line, wanted in zip(ending.lines, expected):
        assert pattern(wanted).fullmatch(line)
        assert entry_of(line), f"docs/protocol.md does not list {line}"
    assert ending.status == status


@pytest.mark.parametrize("status, lines, send, options", CASES)
def test_status_does_not_depend_on_standard_error(status, lines, send, options, segment):
    full = os.open("/dev/full", os.O_RDWR)
    assert run_case(send, segment, options, log=full)[0].status == status


def test_every_listed_line_and_status_has_a_case():
    seen = {entry_of(line) for row in CASES for line in row.values[1]}
    # Every build that is probed has a layout, and growth belongs to test_framing.py.
    seen |= {"Function: ERROR! Unknown library version <build>.",
             "Invalid message size <n> in context [B]."}
    assert {entry for entry, _ in listed()} - {"Error is 22, 'Invalid argument'."} <= seen

    table = (harness.ROOT / "docs" / "protocol.md").read_text().split("## Exit status")[1]
    assert {int(status) for status in re.findall(r"^\| (\d+) \|", table, re.MULTILINE)} <= {
        row.values[0] for row in CASES}


def test_a_rejected_library_is_closed(segment):
    rejected = library("encoder_close")
    service = harness.Service(system=root(rejected, SCRIPTED))
    service.send(frames(segment, encode(0)))
    service.reply()
    with open(f"/proc/{service.pid}/maps") as file:
        maps = file.read()
    assert str(SCRIPTED) in maps and str(rejected) not in maps
    assert service.finish().status == 0
