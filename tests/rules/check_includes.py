#!/usr/bin/env python3
# SPDX-License-Identifier: BSD-2-Clause
"""Holds the include rules: which layer may include what, and the arrows inside base/.

Usage: tests/rules/check_includes.py
Prints one line for each include that breaks a rule and ends with status 1 if there is any.
"""

import fnmatch
import pathlib
import re
import sys

# What the files of a layer may include; '*' crosses folders.
LAYERS = {
    "base": ["qora/base/*"],
    "encoder/abi": ["qora/encoder/abi/*"],
    "encoder": ["qora/base/*", "qora/encoder/*"],
    "service/wire": ["qora/service/wire/*"],
    "service": ["qora/base/*", "qora/encoder/*", "qora/service/*"],
    # Not base: the bridge is loaded into our own process and must not bring a second copy along.
    "bridge": ["qora/encoder/abi/*", "qora/bridge/*"],
    "client": ["qora/base/*", "qora/service/wire/*", "qora/client/*"],
    "session": ["qora/client/*", "qora/session/*"],
    "capture": ["qora/base/*", "qora/client/*", "qora/capture/*"],
    "sandbox": ["qora/sandbox/*"],
    "tools": ["qora/base/*", "qora/capture/*", "qora/client/*", "qora/tools/*"],
}

# The library's own header fixes one API build; everybody else lives by encoder/abi/x264_abi.h.
X264_HEADER_USERS = [
    "qora/bridge/installed_encoder.cc",
    "tests/bridge/*",
    "tests/support/direct_encoder.h",
]

# Inside base/, by family: a file belongs to the longest family that its name begins with. Each
# arrow is in use; one that no file needs any more is reported, so the table stays the truth.
BASE_ARROWS = {
    "clog_line": ["keep_errno"],
    "descriptor": ["keep_errno"],
    "error_reports": ["logger"],
    "error_text": [],
    "file": ["error_text", "keep_errno", "logger", "socket"],
    "keep_errno": [],
    "library": ["error_text", "logger"],
    "logger": ["clog_line", "file", "keep_errno", "mutex"],
    "mutex": ["clog_line"],
    "options": [],
    "process": ["error_text", "keep_errno", "logger", "mutex", "options", "signal", "string"],
    "signal": ["error_text", "keep_errno", "logger"],
    "socket": ["error_text", "keep_errno", "logger", "string"],
    "string": ["clog_line", "logger"],
}

ROOT = pathlib.Path(__file__).parents[2]
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.MULTILINE)


def matches(path, patterns):
    return any(fnmatch.fnmatch(path, pattern) for pattern in patterns)


def longest(names):
    return max(names, key=len, default=None)


def layer_of(path):
    """The layer of a file below qora/; None for tests and benchmarks, which may include all."""
    return longest(name for name in LAYERS if path.startswith(f"qora/{name}/"))


def family_of(path):
    """The family of a file in base/, or None when the table has no such family."""
    stem = pathlib.PurePath(path).stem
    return longest(name for name in BASE_ARROWS if f"{stem}_".startswith(f"{name}_"))


def broken_rule(path, bracket, target, used_arrows):
    """Why the include of `target` in `path` is wrong; None when it is fine."""
    layer, here, there = layer_of(path), family_of(path), family_of(target)
    if pathlib.PurePath(target).name == "x264.h":
        return None if matches(path, X264_HEADER_USERS) else "only the bridge knows this header"
    if bracket == "<":
        return "a file of ours, included as a system header" if (ROOT / target).exists() else None
    if not (ROOT / target).is_file():
        return "not a path from the root"
    if layer and not matches(target, LAYERS[layer]):
        return f"{layer}/ may not include it"
    if layer == "base" and here != there:
        used_arrows.add((here, there))
        if there not in BASE_ARROWS.get(here, []):
            return f"no arrow from {here} to {there}"
    return None


def main():
    complaints, used_arrows = [], set()
    for house in ("qora", "tests", "benchmarks", "examples"):
        for source in sorted((ROOT / house).rglob("*.h")) + sorted((ROOT / house).rglob("*.cc")):
            path, text = source.relative_to(ROOT).as_posix(), source.read_text()
            for found in INCLUDE.finditer(text):
                if reason := broken_rule(path, found[1], found[2], used_arrows):
                    line = text.count("\n", 0, found.start(1)) + 1
                    complaints.append(f"{path}:{line}: {found[2]}: {reason}")
    complaints += [f"the arrow from {here} to {there} is not used any more"
                   for here, arrows in BASE_ARROWS.items() for there in arrows
                   if (here, there) not in used_arrows]
    print("\n".join(complaints) or "every include keeps the rules")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
