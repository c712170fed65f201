# SPDX-License-Identifier: Apache-2.0
"""The checks on the sources: each counts as one case."""

import concurrent.futures
import dataclasses
import os
import subprocess
import time

import memory
from tally import say


@dataclasses.dataclass
class Check:
    command: str
    # The files and folders that the check reads besides its own program. None: it always runs.
    reads: tuple = None
    # Regular expressions. The check also reads the files that `included` matches. It checks one by one the
    # files that `each` matches; the command then gets the names of those that changed.
    each: str = ""
    included: str = ""
    # It uses only the names of the files that this matches.
    named: str = ""

    def keys(self):
        """The key, or None, for each name under which a result is remembered."""
        if self.reads is None:
            return {self.command: None}
        reads = [self.command.split()[0], *self.reads, *memory.matching(self.included)]
        words = [self.command, *memory.matching(self.named)]
        if not self.each:
            return {self.command: memory.key_of(words, reads)}
        return {f"{self.command} {file}": memory.key_of(words, [file, *reads])
                for file in memory.matching(self.each)}


PRODUCT = ("alsa", "buffer", "cable", "channel", "daemon", "ipc", "platform", "companion")
PACKAGING = ("tests/packaging", "packaging", "Android.bp", "LICENSE", "tools/packages.sh", "tools/cmake",
             "CMakeLists.txt", "gadget", *PRODUCT)

# The slowest first.
OF_SOURCES = (
    Check("tools/check/static", (".clang-tidy",),
          each=rf"^({'|'.join(PRODUCT)}|tests|tools|bench)/.*\.(cpp|c)$", included=r"\.(h|hpp|inc)$"),
    Check("tests/model/check", ("tests/model",)),
    Check("tools/check/headers --alone", (), included=r"\.(h|hpp|inc)$", named=r"\.(cpp|c)$"),
    Check("tools/check/packaging", PACKAGING),
    Check("tools/check/packaging_test", ("tools/check/packaging", *PACKAGING)),
    Check("tools/report/report_test", ("tools/report", "tools/packages.sh")),
    Check("tools/check/kernel", ("gadget", "board/wire")),
    Check("tools/check/style"),
    Check("tools/run-tests/run_tests_test", ("tools/run-tests",)),
    Check("tools/check/docs_test", ("tools/check/docs",)),
    Check("tools/check/headers --first"),
    Check("tools/check/includes"),
    Check("tools/check/includes_test"),
    Check("tools/check/licence"),
    Check("tools/check/licence_test"),
    Check("tools/check/log-doc"),
    Check("tools/check/log_doc_test"),
    Check("tools/check/docs --links"),
    Check("tools/replay_log_test"),
    Check("tools/soak_table_test"),
    Check("tests/fuzz/corpus_test"),
)
# The documents' commands need everything to be built.
OF_BUILDS = (Check("tools/check/docs"),)


def run(checks, tally, passed):
    """Runs several at a time, as most of them use only one processor."""
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        running = []
        for check in checks:
            keys = {name: key for name, key in check.keys().items() if passed.cases(name, key) is None}
            if keys:
                running.append(pool.submit(run_one, check, keys))
            else:
                tally.leave_out("checks", 1)
        for done in concurrent.futures.as_completed(running):
            check, keys, well, said, seconds = done.result()
            if not well:
                say(said)
            tally.count(check.command, int(well), int(not well), seconds)
            for name, key in keys.items():
                passed.note(name, key, 1 if well else None)


def run_one(check, keys):
    started = time.monotonic()
    files = [name.removeprefix(check.command + " ") for name in keys] if check.each else []
    done = subprocess.run([*check.command.split(), *files], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, check=False)
    return check, keys, done.returncode == 0, done.stdout, time.monotonic() - started
