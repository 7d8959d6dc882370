#!/usr/bin/env python3
"""Brings about every line and every end of the service that catalogue.txt lists, from outside."""

import pathlib
import re
import resource
import struct

import harness
from harness import Segment, Service, attached, run

CATALOGUE = pathlib.Path(__file__).with_name("catalogue.txt")
DIAGNOSTICS = harness.ROOT / "docs" / "protocol.md"
PLACEHOLDER = re.compile(r"<[\w ]+>")


def pattern(template):
    return re.compile(".*".join(map(re.escape, PLACEHOLDER.split(template))))


class Case:
    def __init__(self, name):
        self.name, self.settings, self.first, self.send, self.lines = name, {}, "b''", "b''", []
        self.status, self.replies = None, []


def parse(text):
    """Messages, statuses and cases of the file."""
    messages, statuses, cases = [], [], []
    for line in text.splitlines():
        if not line.strip() or line.startswith("#"):
            continue
        if line.startswith("  "):
            word, _, rest = line[2:].partition(" ")
            if word == "with":
                cases[-1].settings = dict(entry.split("=", 1) for entry in rest.split(", "))
            elif word in ("first", "send"):
                setattr(cases[-1], word, rest)
            elif word == "status":
                cases[-1].status = int(rest)
            elif word == "reply":
                cases[-1].replies.append(rest)
            else:
                cases[-1].lines.append(line[2:])
            continue
        word, rest = line.split(" ", 1)
        {"message": messages.append, "status": lambda text: statuses.append(int(text)),
         "case": lambda text: cases.append(Case(text))}[word](rest)
    return messages, statuses, cases


class Listed:
    """The listed messages, and whether something is one of them."""

    def __init__(self):
        self.messages, self.statuses, self.cases = parse(CATALOGUE.read_text())
        self.patterns = [(message, pattern(message)) for message in self.messages]

    def message(self, line):
        """The entry that a line belongs to: the one with the most text; None if there is none."""
        fitting = [message for message, form in self.patterns if form.fullmatch(line)]
        return max(fitting, key=len, default=None)


def limited(service, first, room):
    """Handles `first`, then leaves the service only `room` more bytes of address space."""
    service.send(first)
    service.reply()
    pages = int(pathlib.Path(f"/proc/{service.pid}/statm").read_text().split()[0])
    limit = pages * resource.getpagesize() + int(room)
    resource.prlimit(service.pid, resource.RLIMIT_AS, (limit, limit))


def run_case(build, case, segment):
    settings = dict(case.settings)
    root = build.root(settings.pop("library", "build_142"), settings.pop("second", None))
    names = vars(harness) | {"S": segment, "root": str(root)}
    compute = lambda text: re.sub(r"\{(.+?)\}", lambda found: str(eval(found[1], names)), text)
    strace = settings.pop("strace", None)
    limit, closed = settings.pop("limit", None), settings.pop("output", None)
    environment = {name: compute(value) or None for name, value in settings.items()}
    options = {"root": root, "environment": environment,
               "preload": any(name.startswith("FAULT_") for name in settings)}
    if strace:
        options["wrap"] = ["strace", "-D", "-qqq", "-o", "/dev/null", "-e", f"inject={strace}"]
    send = eval(case.send, names)
    if limit or closed:
        service = Service(build, **options)
        if closed:
            service.close_output()
        else:
            limited(service, eval(case.first, names), limit)
        service.send(send)
        ending = service.finish()
    else:
        ending = run(build, send, **options)
    return ending, [compute(line) for line in case.lines]


def replies_of(output):
    """Key frame, quantizer and payload of each reply, as the file writes them; times are left out."""
    replies = []
    while output:
        size, kind, key, quantizer, zero, length, start, end = struct.unpack("<IBBBBIII", output[:20])
        payload, output = output[20:20 + length], output[20 + length:]
        sound = (size, kind, zero) == (20, 5, 0) and 0 <= end - start < harness.HANG * 1000
        replies.append(f"{key} {quantizer} {payload.decode(errors='replace')}" if sound else "odd")
    return replies


def possible(case, build):
    """A sanitizer's own memory and threads do not go with faults and limits."""
    return not build.sanitized or not any(
        name.startswith("FAULT_") or name in ("limit", "strace") for name in case.settings)


def main():
    options = harness.arguments(__doc__)
    report = harness.Report(options)
    listed = Listed()
    seen = set()
    with Segment() as segment:
        for case in listed.cases:
            if not possible(case, options.build):
                continue
            ending, expected = run_case(options.build, case, segment.id)
            same = len(expected) == len(ending.lines) and all(
                pattern(wanted).fullmatch(line) for wanted, line in zip(expected, ending.lines))
            same = same and (not case.replies or replies_of(ending.output) == case.replies)
            report.check(same and ending.status == case.status and attached(segment.id) == 0,
                         lambda: f"case {case.name}: {ending}\n  expected status {case.status}, "
                                 f"lines {expected}\n  replies {replies_of(ending.output)}")
            seen |= {ending.status} | {listed.message(line) for line in ending.lines}
    if not options.build.sanitized:
        for entry in listed.messages + listed.statuses:
            report.check(entry in seen, f"no case saw {entry!r}")
        report.note(f"{len(listed.messages)} messages, {len(listed.statuses)} statuses ticked off")
    report.check(None not in seen, "a line was seen that is not listed")
    # The page that parents are written by lists the same lines. Their reporters add the prefixes.
    for text in re.findall(r"^\| `(.+?)` \|", DIAGNOSTICS.read_text(), re.MULTILINE):
        if "Unknown library version" in text:  # every probed build has a layout
            continue
        report.check(any(listed.message(prefix + text) for prefix in ("", "Error: ", "Warning: ")),
                     f"docs/protocol.md lists {text!r}, the catalogue does not")
    report.end()


if __name__ == "__main__":
    main()
