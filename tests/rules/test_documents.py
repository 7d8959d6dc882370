# SPDX-License-Identifier: BSD-2-Clause
"""The documents speak of what is there: links, files, options; what they show works."""

import functools
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

import pytest

import harness
from harness import ROOT, copy, encode, planes, rectangle

sys.path.append(str(ROOT / "tests" / "live"))
from screens import Screen, run

PAGES = sorted(page for folder in (".", "docs", "tests") for page in (ROOT / folder).glob("*.md")
               if page.name != "CHANGELOG.md")
BUILD = harness.BUILD.resolve()
RUN_INSTALLED = ("writing_a_parent.md", "c_interface.md")  # by examples_installed
HOUSES = "benchmarks|deploy|docs|examples|qora|scripts|tests"


def fenced(page):
    return re.findall(r"^```(.*?)\n(.*?)^```$", page.read_text(), re.M | re.S)


def blocks(page, kind):
    return [text for its_kind, text in fenced(page) if its_kind == kind]


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
    code = re.findall(r"^```sh.*?\n(.*?)^```|`([^`\n]+)`", page.read_text(), re.M | re.S)
    for line in "\n".join(map("".join, code)).splitlines():
        for program, words in re.findall(r"\b(qora-(?:encode|record|view|serve)) ([^|#;]*)", line):
            if (BUILD / program).exists():
                for option in re.findall(r"(?<!\S)--?[a-z-]+", words):
                    assert re.search(rf"(?<![\w-]){option}\b", usage(program)), line


# What has no end of its own is given one: a second, the end of the stream, a viewer's look at the address.
PRELUDE = r"""
qora-record() { command qora-record "$@" --duration 1; }
# The libraries of a window keep memory until the process ends.
qora-view() { ASAN_OPTIONS=detect_leaks=0 command qora-view "$@" --close; }
qora-serve() {
  local line
  exec {said}< <(exec qora-serve "$@" --port 0)
  read -r line <&$said && [[ $line == *http://* ]] && kill $! && wait $!
}
"""


@pytest.fixture(scope="module")
def desk():
    """A screen with a window, and a folder with what the pages name."""
    with Screen("1920x1080") as screen, tempfile.TemporaryDirectory() as folder:
        screen.environment["PATH"] = f"{BUILD}:{os.environ['PATH']}"
        window = screen.terminal()
        run("ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc=s=64x48:d=0.2", "-pix_fmt", "yuv420p",
            "clip.y4m", "movie.mp4", cwd=folder)
        for name in ("clip.qora", "recording.qora"):
            run(BUILD / "qora-encode", "--moves", "--quiet", "clip.y4m", "-o", name, cwd=folder)
        yield screen, folder, window


@pytest.mark.parametrize("commands", [
    pytest.param(block, id=f"{page.name}: {block.splitlines()[0]}")
    for page in PAGES if page.name not in RUN_INSTALLED for block in blocks(page, "sh")])
def test_commands_run(desk, commands):
    screen, folder, window = desk
    for program in re.findall(r"\bqora-[a-z]+", commands):
        if not (BUILD / program).exists():
            pytest.skip(f"{program} is not built")
    commands = commands.replace("0x2600007", window)
    run("bash", "-eu", "-o", "pipefail", "-c", PRELUDE + commands, cwd=folder, env=screen.environment)
    for output in re.findall(r"(?:-o|--png) ([\w.]+)", commands):
        assert pathlib.Path(folder, output).stat().st_size > 100, output


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.name)
def test_commands_for_elsewhere_are_a_shells(page):
    for block in blocks(page, "sh by-hand"):
        run("bash", "-n", "-c", block)
        for script in re.findall(r"^(?:\S+=\S+ )?((?:scripts|benchmarks|\.ci)/\S+)", block, re.M):
            assert os.access(ROOT / script, os.X_OK), script


@pytest.mark.skipif(not shutil.which("systemd-analyze"), reason="systemd is not installed")
def test_systemd_takes_the_units(tmp_path):
    units = [block for page in PAGES for block in blocks(page, "ini")]
    units += [path.read_text() for path in ROOT.glob("deploy/*.service")]
    for unit in units:
        (tmp_path / "our@.service").write_text(unit.replace("/usr/bin/qora-serve", "/bin/true"))
        assert "our@" not in run("systemd-analyze", "verify", "--man=no", tmp_path / "our@.service")
    assert len(units) > 1


@pytest.mark.skipif(not shutil.which("nginx"), reason="nginx is not installed")
def test_nginx_takes_its_part(tmp_path):
    [part] = [block for page in PAGES for block in blocks(page, "nginx")]
    ours = "".join(f"{kind}_temp_path {tmp_path};" for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
    (tmp_path / "conf").write_text(f"pid {tmp_path}/pid; events {{}} http {{ access_log off; {ours} server {{ {part} }} }}")
    run("nginx", "-t", "-e", tmp_path / "log", "-c", tmp_path / "conf")


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.name)
def test_every_block_is_of_a_kind_that_is_tried(page):
    kinds = [kind for kind, _ in fenced(page)]
    installed = ["c", "cmake", "sh"] if page.name in RUN_INSTALLED else []  # the first of each
    assert all(kinds.count(kind) <= 1 for kind in installed)
    assert set(kinds) <= {"", "sh", "sh by-hand", "cpp", "ini", "nginx", "mermaid", *installed}
    for text in blocks(page, ""):
        assert not re.search(r"^(?:\$ |sudo |cmake |scripts/|\.ci/|qora-\w+ (?!\[options\]))", text, re.M), text


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
