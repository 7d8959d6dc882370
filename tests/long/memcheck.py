#!/usr/bin/env python3
"""The service under valgrind: no error, nothing lost but what an add over a stream in use leaves.

Drives sessions of its own over the scripted and the real encoder, then, with at least five minutes,
the picture test.
"""

import re
import subprocess

import harness
from harness import (Segment, Service, add, attach, copy, encode, planes, raw, rectangle, remove)
from sessions import session

VALGRIND = ["valgrind", "--leak-check=full", "--show-leak-kinds=definite",
            "--errors-for-leak-kinds=definite", "--num-callers=40"]
SUITE_SECONDS = 300
RECORD = re.compile(r"^==\d+== ?", re.MULTILINE)


def findings(log):
    """The records of a log: errors and definite losses, as blocks of text."""
    blocks = RECORD.sub("", log).split("\n\n")
    return [block for block in blocks if re.search(r"\n +at 0x|\bdefinitely lost in", block)]


def from_add(block):
    return "definitely lost in" in block and "qora::service::addStream" in block


def busy_session(report, build, segment, twice):
    """Both rate controls, four threads, lists of every kind, growth of the buffer; and, `twice`,
    adds over streams in use."""
    log = build.scratch / "memcheck.log"
    service = Service(build, root=build.real, wrap=[*VALGRIND, f"--log-file={log}"])
    service.send(attach(segment) + raw(500000, 1, bytes([7, 0])))
    for stream in range(4):
        service.send(add(stream, 160, 120, bitrate=stream % 2 * 300, threads=1 + stream % 2 * 3))
    for number in range(24):
        copies = copy((2, 2), (30, 21), 41, 33, flags=number % 8) if number > 4 else b""
        service.send(encode(number % 4, rectangle(number, 7, 90, 70, -5), copies,
                            layout=planes(160, 120), invalidate=number == 17))
        service.reply()
        if twice and number == 12:
            service.send(add(0, 160, 120) + add(1, 160, 120, bitrate=300))
    service.send(b"".join(map(remove, range(4))))
    ending = service.finish()
    records = findings(log.read_text())
    left = [block for block in records if from_add(block)] if twice else []
    report.check(ending.status == 0, lambda: str(ending))
    report.check(len(left) == len(records), lambda: "\n\n".join(records))
    report.check(bool(left) == twice, "valgrind did not see what the second add leaves")


def scripted_session(report, build, segment):
    log = build.scratch / "memcheck.log"
    service = Service(build, environment={"FAKE_ENCODER": "planes=999"},
                      wrap=[*VALGRIND, f"--log-file={log}"])
    service.send(b"".join(session(segment)))
    ending = service.finish()
    records = findings(log.read_text())
    report.check(ending.status == 0 and not records, lambda: f"{ending}\n" + "\n\n".join(records))


def suite(report, build):
    """The suite's own process runs under valgrind too, because its children shall; only theirs are
    looked at."""
    command = [*VALGRIND, "--trace-children=yes", "--trace-children-skip=/bin/*,/usr/bin/*",
               f"--log-file={build.scratch}/suite-%p.log", build.folder / "tests" / "test_decoded"]
    passed = subprocess.run(command, capture_output=True, text=True)
    report.check(passed.returncode == 0, lambda: passed.stdout[-3000:])
    services = 0
    for path in build.scratch.glob("suite-*.log"):
        log = path.read_text()
        if re.search(r"Command: \S*qora-codec", log):
            services += 1
            records = findings(log)
            report.check(not records, lambda: "\n\n".join(records))
    report.note(f"{services} services of the picture test")


def main():
    options = harness.arguments(__doc__)
    report = harness.Report(options)
    with Segment() as segment:
        scripted_session(report, options.build, segment.id)
        for twice in (False, True):
            busy_session(report, options.build, segment.id, twice)
    if options.seconds >= SUITE_SECONDS:
        suite(report, options.build)
    report.end()


if __name__ == "__main__":
    main()
