# SPDX-License-Identifier: Apache-2.0
"""The test programs of a build: builds them, has ctest run those that changed, and counts cases."""

import json
import os
import pathlib
import re
import shutil
import subprocess
import time
import xml.etree.ElementTree as xml

import memory
from tally import quietly, say

JOBS = str(len(os.sched_getaffinity(0)))


def list_programs(preset, pattern):
    """ctest's description of each program, by name."""
    command = ["ctest", "--preset", preset, "--show-only=json-v1", *(["-R", pattern] if pattern else [])]
    told = subprocess.run(command, stdout=subprocess.PIPE, check=False).stdout
    return {test["name"]: test for test in json.loads(told or "{}").get("tests", [])}


def key_of(test):
    """None unless the program declares the files that it reads, as REQUIRED_FILES."""
    properties = {each["name"]: each["value"] for each in test.get("properties", [])}
    files = [file for file in properties.get("REQUIRED_FILES", []) if file]
    return memory.key_of([test["command"], properties.get("ENVIRONMENT")], files) if files else None


def cases_of(report, status):
    """The numbers of passed and failed cases of a program, from its report and from ctest's. A case that
    is skipped or disabled proves nothing and counts as failed. A program that makes no report is a case
    itself."""
    tests = bad = 0
    if report:
        for suite in xml.parse(report).getroot().iter("testsuite"):
            tests += int(suite.get("tests", 0))
            bad += sum(int(suite.get(what, 0)) for what in ("failures", "disabled", "skipped"))
    elif status == "run":
        tests = 1
    if status != "run" and not bad:
        tests += 1
        bad = 1
    return tests - bad, bad


class Preset:
    def __init__(self, name, tally, passed):
        self.name = name
        self.tally = tally
        self.memory = passed
        self.build = pathlib.Path("build", name)
        self.results = self.build / "results"
        self.junit = self.build / "ctest.xml"

    def run(self, pattern=None):
        """Runs all programs that changed, or those that match the pattern, whether changed or not."""
        started = time.monotonic()
        say(f"{self.name}: building")
        if not (quietly(["cmake", "--preset", self.name]) and
                quietly(["cmake", "--build", "--preset", self.name, "-j", JOBS])):
            self.tally.count(f"{self.name} (build)", 0, 1, time.monotonic() - started)
            return
        say(f"{self.name}: testing ({time.monotonic() - started:.0f} s to build)")
        programs = list_programs(self.name, pattern)
        keys = {name: key_of(test) for name, test in programs.items()}
        unchanged = {} if pattern else self.unchanged(keys)
        self.clear_results(unchanged)
        changed = [name for name in programs if name not in unchanged]
        well = len(unchanged) == len(programs) > 0 or self.ctest(changed)
        passed, failed = self.count(keys)
        self.tally.leave_out("programs", len(unchanged))
        self.tally.leave_out("cases in them", sum(unchanged.values()))
        self.tally.count(self.name, passed, failed, time.monotonic() - started)
        # For example, no test was run at all.
        if not well and not failed:
            self.tally.count(f"{self.name} (ctest)", 0, 1, time.monotonic() - started)

    def unchanged(self, keys):
        """The programs that need not run, and how many cases each has."""
        cases = {name: self.memory.cases(f"{self.name}/{name}", key) for name, key in keys.items()}
        return {name: number for name, number in cases.items() if number is not None}

    def clear_results(self, kept):
        """Removes the reports of all programs that will run."""
        self.junit.unlink(missing_ok=True)
        self.results.mkdir(exist_ok=True)
        names = {pathlib.Path(name).name for name in kept}
        for entry in self.results.iterdir():
            if entry.stem not in names:
                shutil.rmtree(entry) if entry.is_dir() else entry.unlink()

    def ctest(self, names):
        # To leave out the others with -E would end the preset's own filter.
        chosen = "^(" + "|".join(map(re.escape, names)) + ")$"
        return quietly(
            ["ctest", "--preset", self.name, "-j", JOBS, "--output-junit", str(self.junit.absolute()), "-R", chosen],
            # The unit tests' programs read from the environment where to write their reports.
            env={**os.environ, "GTEST_OUTPUT": f"xml:{self.results.absolute()}/"})

    def count(self, keys):
        """Adds up the cases of the programs that ctest ran, and remembers the programs that passed."""
        all_passed = all_failed = 0
        for case in xml.parse(self.junit).getroot().iter("testcase") if self.junit.exists() else ():
            name = case.get("name")
            report = next(self.results.rglob(f"{pathlib.Path(name).name}.xml"), None)
            passed, failed = cases_of(report, case.get("status"))
            self.memory.note(f"{self.name}/{name}", keys.get(name), None if failed else passed)
            all_passed += passed
            all_failed += failed
        return all_passed, all_failed
