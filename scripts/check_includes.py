#!/usr/bin/env python3
"""Holds the include rules: which layer may include what, and the arrows inside base/.

Usage: scripts/check_includes.py [ROOT]
Prints one line for each include that breaks a rule and ends with status 1 if there is any.
"""

import fnmatch
import pathlib
import re
import sys

# What the files of a layer may include; '*' crosses folders.
LAYERS = {
    "base": ["base/*"],
    "encoder": ["base/*", "encoder/*"],
    "service": ["base/*", "encoder/*", "service/*"],
    # Not base: the bridge is loaded into our own process and must not bring a second copy along.
    "bridge": ["encoder/param_layout.h", "encoder/x264_abi.h", "bridge/*"],
    "client": ["base/*", "client/*", "service/messages.h", "service/byte_order.h"],
    "sandbox": ["sandbox/*"],
    "tools": ["base/*", "client/*", "tools/*"],
    "tests": ["*"],
    "fuzz": ["*"],
    "stress": ["*"],
    "checks": ["*"],
    "benchmarks": ["*"],
}

# The library's own header fixes one API build; everybody else lives by encoder/x264_abi.h.
X264_HEADER_USERS = [
    "bridge/installed_encoder.cc",
    "tests/bridge/*",
    "checks/direct_encoder.cc",
]

# Inside base/, by family: a file belongs to the longest family that its name begins with. Each
# arrow is in use; one that no file needs any more is reported, so the table stays the truth.
BASE_ARROWS = {
    "keep_errno": [],
    "logger": ["file", "keep_errno", "mutex"],
    "error_names": ["logger"],
    "error_reports": ["logger"],
    "file": ["keep_errno", "logger", "socket"],
    "library": ["logger"],
    "mutex": ["logger"],
    "options": [],
    "process": ["keep_errno", "logger", "mutex", "options", "signal", "string"],
    "signal": ["keep_errno", "logger"],
    "socket": ["keep_errno", "logger", "string"],
    "string": ["logger"],
}

INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.MULTILINE)


def matches(path, patterns):
    return any(fnmatch.fnmatch(path, pattern) for pattern in patterns)


def base_family(path):
    """The family of a file in base/, or None when the table has no such family."""
    stem = pathlib.PurePath(path).stem
    fitting = [name for name in BASE_ARROWS if stem == name or stem.startswith(name + "_")]
    return max(fitting, key=len, default=None)


def broken_rule(root, path, bracket, target, used_arrows):
    """Why the include of `target` in `path` is wrong; None when it is fine."""
    layer = path.split("/")[0]
    if pathlib.PurePath(target).name == "x264.h":
        return None if matches(path, X264_HEADER_USERS) else "only the bridge knows this header"
    if bracket == "<":
        return "a file of ours, included as a system header" if (root / target).exists() else None
    if not (root / target).is_file():
        return "not a path from the root"
    if not matches(target, LAYERS[layer]):
        return f"{layer}/ may not include it"
    if layer == "base":
        here, there = base_family(path), base_family(target)
        if here is None or there is None:
            return "a family that the table of arrows does not have"
        used_arrows.add((here, there))
        if here != there and there not in BASE_ARROWS[here]:
            return f"no arrow from {here} to {there}"
    return None


def main():
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parents[1])
    complaints = []
    used_arrows = set()
    for layer in LAYERS:
        for source in sorted((root / layer).rglob("*")):
            if source.suffix not in (".h", ".cc"):
                continue
            path = source.relative_to(root).as_posix()
            text = source.read_text()
            for found in INCLUDE.finditer(text):
                reason = broken_rule(root, path, found[1], found[2], used_arrows)
                if reason:
                    line = text.count("\n", 0, found.start(1)) + 1
                    complaints.append(f"{path}:{line}: {found[2]}: {reason}")
    for here, arrows in BASE_ARROWS.items():
        for there in arrows:
            if (here, there) not in used_arrows:
                complaints.append(f"the arrow from {here} to {there} is not used any more")
    print("\n".join(complaints) or "every include keeps the rules")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
