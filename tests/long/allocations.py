#!/usr/bin/env python3
"""Every allocation of a session fails in turn, once and from then on; a steady frame makes none.

The service must end by itself, in time, with listed lines and without a signal. The scripted
encoder is used throughout; with --seconds to spare, the real one too, a sample of its many.
"""

import time

import harness
from catalogue import Listed
from harness import Counts, Segment, Service, add, attach, encode, rectangle, run
from sessions import session


def allocations_of(build, data, root):
    counts = Counts()
    run(build, data, root=root, preload=True, environment={"FAULT_COUNT": counts.path})
    return counts.now()[0]


def fail_each(report, listed, build, data, root, numbers, library_lines):
    for number in numbers:
        for suffix in ("", "+"):
            ending = run(build, data, root=root, preload=True,
                         environment={"FAULT_ALLOCATION": f"{number}{suffix}"})
            strange = [line for line in ending.lines
                       if not listed.message(line) and not line.startswith(library_lines)]
            report.check(isinstance(ending.status, int) and ending.status >= 0 and not strange,
                         lambda: f"allocation {number}{suffix}: {ending}")


def steady_frames(report, build, root, segment, name):
    """What a frame allocates once a stream has had a few."""
    counts = Counts()
    service = Service(build, root=root, preload=True, environment={"FAULT_COUNT": counts.path})
    service.send(add(0) + attach(segment))
    seen = []
    for _ in range(50):
        service.send(encode(0, rectangle() * 3))
        service.reply()
        seen.append(counts.now())
    service.finish()
    made = seen[-1][0] - seen[9][0]
    if name == "scripted":
        report.check(len(set(seen[9:])) == 1, f"40 steady frames allocated {made} times")
    report.note(f"{made} allocations in 40 steady frames of the {name} encoder")


def main():
    options = harness.arguments(__doc__)
    report = harness.Report(options)
    build, listed = options.build, Listed()
    with Segment() as segment:
        data = b"".join(session(segment.id))
        total = allocations_of(build, data, build.fake())
        fail_each(report, listed, build, data, build.fake(), range(1, total + 2), ("~ never",))
        report.note(f"{total} allocations with the scripted encoder")
        steady_frames(report, build, build.fake(), segment.id, "scripted")
        steady_frames(report, build, build.real, segment.id, "real")
        if not options.short:
            total = allocations_of(build, data, build.real)
            sample = 0
            # The library's own lines, which say what it lacks, are its own affair.
            for number in range(1, total + 1, max(1, total // 400)):
                if time.monotonic() > options.deadline:
                    break
                fail_each(report, listed, build, data, build.real, [number], ("~ ",))
                sample += 1
            report.note(f"{sample} of {total} with the real one")
    report.end()


if __name__ == "__main__":
    main()
