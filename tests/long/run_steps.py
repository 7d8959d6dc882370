#!/usr/bin/env python3
"""Runs the steps of steps.tsv within a time budget and prints one table of what was tried and what
failed. Usage: run_steps.py SECONDS BUILD_FOLDER

Exit status 1 when a step found something or did not end. Each step's output goes into a log of its
own, a step that overruns is killed. The table is kept as table.md beside the logs.
"""

import os
import pathlib
import re
import signal
import subprocess
import sys
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
STEPS = pathlib.Path(__file__).with_name("steps.tsv")
RESULT = re.compile(r"^(?:RESULT tried=|all +)(\d+) (?:failed=| *)(\d+) ?(.*)$", re.MULTILINE)
GRACE = 600  # seconds that a step may run over its share: some have a fixed amount to do


class Step:
    def __init__(self, line):
        self.lane, share, self.name, self.command = line.split("\t")
        self.share = float(share) / 100
        self.row = None
        self.failed = False

    def run(self, seconds, build, logs):
        budget = max(5, round(seconds * self.share))
        command = self.command.format(build=build, logs=logs, seconds=budget)
        log = logs / (self.name.replace(" ", "-") + ".log")
        begun = time.monotonic()
        with open(log, "w") as output:
            child = subprocess.Popen(["bash", "-c", f"exec {command}"], cwd=ROOT, stdout=output,
                                     stderr=subprocess.STDOUT, start_new_session=True)
            try:
                status = child.wait(budget + GRACE)
            except subprocess.TimeoutExpired:
                os.killpg(child.pid, signal.SIGKILL)
                status = child.wait()
        self.judge(status, log.read_text(errors="replace"), time.monotonic() - begun)

    def judge(self, status, output, took):
        results = RESULT.findall(output)
        last_line = (output.strip().splitlines() or [""])[-1]
        tried, failed, notes = results[-1] if results else ("1", str(int(status != 0)), last_line)
        if status != 0 and failed == "0":
            failed, notes = "1", f"ended with {status}"
        self.failed = failed != "0"
        self.row = f"| {self.name} | {int(tried):,} | {failed} | {took:.0f} | {notes} |"
        print(self.row, flush=True)


def read_steps():
    steps = [Step(line) for line in STEPS.read_text().splitlines() if not line.startswith("#")]
    share = {lane: sum(step.share for step in steps if step.lane == lane)
             for lane in ("a", "b", "ab")}
    if max(share["a"], share["b"]) + share["ab"] > 0.95:
        sys.exit(f"steps.tsv: more than 95 % of the time is given away: {share}")
    return steps


def main():
    seconds, build = float(sys.argv[1]), pathlib.Path(sys.argv[2]).resolve()
    logs = build / "stress" / "logs"
    logs.mkdir(parents=True, exist_ok=True)
    steps = read_steps()
    begun = time.monotonic()

    def run_lane(lane):
        for step in steps:
            if step.lane == lane:
                step.run(seconds, build, logs)

    lanes = [threading.Thread(target=run_lane, args=[lane]) for lane in "ab"]
    for lane in lanes:
        lane.start()
    for lane in lanes:
        lane.join()
    run_lane("ab")

    failed = [step.name for step in steps if step.row is None or step.failed]
    table = ["| step | tried | failed | seconds | |", "|---|---|---|---|---|"]
    table += [step.row or f"| {step.name} | 0 | 1 | 0 | did not run |" for step in steps]
    (logs / "table.md").write_text("\n".join(table) + "\n")
    print("", *table, sep="\n")
    print(f"\n{time.monotonic() - begun:.0f} s; logs in {logs}")
    print("findings in: " + ", ".join(failed) if failed else "no findings")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
