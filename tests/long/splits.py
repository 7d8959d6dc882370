#!/usr/bin/env python3
"""One session, cut at every byte, dripped byte by byte, and at once: the replies and lines are the
same but for the clock readings."""

import harness
from harness import Segment, Service, mask_times
from sessions import replies, session


def pieces(data, cuts):
    edges = [0, *cuts, len(data)]
    return [data[begin:end] for begin, end in zip(edges, edges[1:])]


def delivered(build, parts):
    """The ending of a run in which each part is taken before the next is written."""
    service = Service(build, environment={"FAKE_ENCODER": "planes=999"})
    for part in parts:
        service.send(part)
        service.settle()
    ending = service.finish()
    ending.output = mask_times(ending.output)
    return ending


def main():
    options = harness.arguments(__doc__)
    report = harness.Report(options)
    with Segment() as segment:
        data = b"".join(session(segment.id))
        ways = {"dripped": range(1, len(data)), "in pieces of 7": range(7, len(data), 7)}
        ways |= {f"cut at {cut}": [cut] for cut in range(1, len(data))}
        whole = delivered(options.build, [data])
        report.check(whole.status == 0 and whole.output == replies(), lambda: str(whole))
        for name, cuts in ways.items():
            ending = delivered(options.build, pieces(data, cuts))
            report.check(ending == whole, lambda: f"{name}: {ending}\n  at once: {whole}")
    report.end()


if __name__ == "__main__":
    main()
