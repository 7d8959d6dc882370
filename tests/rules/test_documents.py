# SPDX-License-Identifier: BSD-2-Clause
"""The documents speak of what is there: links, files, options, the bytes of an example."""

import functools
import os
import re
import subprocess

import pytest

from harness import BUILD, ROOT, copy, encode, planes, rectangle

PAGES = sorted(page for folder in (".", "docs", "tests") for page in (ROOT / folder).glob("*.md")
               if page.name != "CHANGELOG.md")
HOUSES = "benchmarks|deploy|docs|examples|qora|scripts|tests"


def anchors(page):
    headings = re.findall(r"^#+ (.*)$", page.read_text(), re.M)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


@functools.cache
def usage(program):
    return subprocess.run([BUILD / program, "--help"], capture_output=True, text=True).stdout


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.name)
def test_what_a_page_names_exists(page):
    text = page.read_text()
    for target, heading in re.findall(r"\]\(([^)#\s]*)#?([^)\s]*)\)", text):
        if "://" not in target:
            there = page.parent / target if target else page
            assert there.exists(), f"link to {target}"
            assert not heading or heading in anchors(there), f"link to {target}#{heading}"
    for path in re.findall(rf"(?<![\w./*~-])(?:{HOUSES})/[a-z_\d./@-]*[a-z_\d](?![\w*/]|\.[{{*])"
                           r"|(?<![\w./*~-])[a-z_]+/[a-z_/]+\.(?:cc|h|py|sh)\b", text):
        assert (ROOT / path).exists() or (page.parent / path).exists(), path
    for path in re.findall(r"build/release/((?:tests/)?(?:qora|test)[a-z_-]+)(?![\w*.-])", text):
        assert (BUILD / path).exists() or path.startswith("qora-"), path


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.name)
def test_options_are_in_the_help(page):
    code = re.findall(r"^```sh\n(.*?)^```|^((?:    .*\n)+)|`([^`\n]+)`", page.read_text(), re.M | re.S)
    for line in "\n".join(map("".join, code)).splitlines():
        for program, words in re.findall(r"\b(qora-(?:encode|record|view|serve)) ([^|#;]*)", line):
            if (BUILD / program).exists():
                for option in re.findall(r"(?<!\S)--?[a-z-]+", words):
                    assert re.search(rf"(?<![\w-]){option}\b", usage(program)), line


def test_the_clips_of_the_readme_are_encoded(tmp_path):
    block = re.search(r"```sh\n(qora-encode clip.*?)```", (ROOT / "README.md").read_text(), re.S)[1]
    for name in ("clip.y4m", "movie.mp4"):
        subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc=s=64x48", "-frames:v", "3",
                        "-pix_fmt", "yuv420p", name], cwd=tmp_path, check=True)
    environment = os.environ | {"PATH": f"{BUILD.resolve()}:{os.environ['PATH']}"}
    subprocess.run(["sh", "-eu", "-c", block], cwd=tmp_path, check=True, env=environment)
    assert all((tmp_path / name).stat().st_size > 100 for name in ("clip.mp4", "movie.264"))


def test_the_bytes_of_the_scroll_are_that_command():
    section = (ROOT / "docs" / "protocol.md").read_text().split("## A scroll")[1].split("```")[1]
    rows = [re.match(r"(?:[\da-f]{2} {1,2})+", row)[0] for row in section.strip().splitlines()]
    assert bytes.fromhex("".join(rows)) == encode(
        0, rectangle(16, 192, 288, 16), copy((16, 48), (16, 32), 288, 160), layout=planes(320, 240, 115200))


def test_every_source_file_names_its_licence():
    tracked = subprocess.run(["git", "ls-files", "*.cc", "*.h", "*.c", "*.py", "*.sh", "*.cmake",
                              "*CMakeLists.txt", "*.js", "*.css"], cwd=ROOT, capture_output=True,
                             text=True, check=True).stdout.split()
    for path in tracked:
        licence = "GPL-2.0-or-later" if path.startswith("qora/bridge/") else "BSD-2-Clause"
        assert f"SPDX-License-Identifier: {licence}" in (ROOT / path).read_text(), path
