#!/usr/bin/env python3
"""System calls of a session that fail once, each with seven errors, and channel calls that move
less than was asked for.

A first run under strace lists the calls; then one run a call and error has that very call fail.
Calls that the loader makes before main() are left out: without its libraries nothing runs.
"""

import errno
import re
import time

import harness
from catalogue import Listed
from harness import Segment, Service, mask_times
from sessions import replies, session

ERRORS = ("EINTR", "EAGAIN", "EIO", "EBADF", "EPIPE", "ENOMEM", "EACCES")
NAMES = "read,writev,shmat,shmdt,newfstatat,openat"
CALL = re.compile(r"^(\w+)\((.*?)(?:\)\s+= |$)")


class Traced:
    """Runs under strace, the session written command by command so that each is a read."""

    def __init__(self, build, segment):
        self.build, self.commands, self.segment = build, session(segment), segment
        self.trace = build.scratch / "trace"
        self.seen = None

    def run(self, inject):
        wrap = ["strace", "-D", "-qqq", "-o", self.trace, "-e", f"trace={NAMES}"]
        wrap += ["-e", f"inject={inject}"] if inject else []
        # A sanitizer's leak check cannot run in a traced process.
        service = Service(self.build, wrap=wrap, environment={"FAKE_ENCODER": "planes=999",
                                                              "ASAN_OPTIONS": "detect_leaks=0"})
        for command in self.commands:
            service.send(command)
            service.settle()
        ending = service.finish()
        ending.output = mask_times(ending.output)
        return ending

    def calls(self):
        """(name, which of its name, arguments) of each call from main() on."""
        lines, counts, calls, started = self.trace.read_text().splitlines(), {}, [], False
        for line in lines:
            found = CALL.match(line)
            if not found:
                continue
            name = found[1]
            counts[name] = counts.get(name, 0) + 1
            started = started or "libx264.so" in line
            if started:
                calls.append((name, counts[name], found[2]))
        return calls


def expected_status(name, arguments, error, last_detach):
    """None: any ending that is documented will do."""
    status = 0 if error == errno.EIO else error
    if name in ("read", "writev") and arguments.split(",")[0] in "01":
        return status
    if name == "shmat":
        return status
    if name == "shmdt":  # goes on; the one of the shutdown leaves its errno
        return status if last_detach else 0
    return None


def fault_cases(report, listed, traced, every):
    clean = traced.run(None)
    report.check(clean.status == 0 and clean.output == replies(), lambda: f"untouched: {clean}")
    calls = traced.calls()
    detaches = sum(name == "shmdt" for name, _, _ in calls)
    cases = [(call, error) for call in calls for error in ERRORS]
    for (name, number, arguments), error in cases[::every]:
        ending = traced.run(f"{name}:error={error}:when={number}")
        code = getattr(errno, error)
        wanted = expected_status(name, arguments, code, number == detaches)
        fits = ending.status == wanted if wanted is not None else ending.status in (0, 2, 22, 42)
        ended = not clean.output.startswith(ending.output)
        strange = [line for line in ending.lines if not listed.message(line)]
        report.check(fits and not ended and not strange,
                     lambda: f"{name} #{number} ({arguments}) fails with {error}: {ending}, "
                             f"expected status {wanted}")
    report.note(f"{len(cases[::every])} of {len(cases)} faults of {len(calls)} calls")


def short_transfers(report, build, segment):
    """Whatever the lengths in which the channel moves bytes, none is lost."""
    for length in (*range(1, 42), 63, 64, 119, 120, 121):
        service = Service(build, preload=True, environment={"FAULT_SHORT": str(length),
                                                            "FAKE_ENCODER": "planes=999"})
        service.send(b"".join(session(segment)))
        ending = service.finish()
        report.check(ending.status == 0 and mask_times(ending.output) == replies(),
                     lambda: f"reads and writes of at most {length} bytes: {ending}")


def main():
    options = harness.arguments(__doc__)
    report = harness.Report(options)
    with Segment() as segment:
        if not options.build.sanitized:
            short_transfers(report, options.build, segment.id)
        fault_cases(report, Listed(), Traced(options.build, segment.id), 7 if options.short else 1)
        report.check(harness.attached(segment.id) == 0, "the segment is still attached")
    report.end()


if __name__ == "__main__":
    main()
