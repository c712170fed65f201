# SPDX-License-Identifier: Apache-2.0
"""Remembers what has passed, and with which inputs, so that it need not run again with the same ones.

A program or a check is remembered by its name, with a key: a hash of its command, of the contents of
every file that it reads, and of the machine. The key is computed before the run. A program or check that
fails is forgotten.
"""

import functools
import hashlib
import json
import os
import pathlib
import re
import subprocess
import threading

ROOT = pathlib.Path(__file__).resolve().parents[2]
# Environment variables that may change what a program does.
VARIABLES = re.compile(r"(GTEST|ASAN|LSAN|TSAN|UBSAN|UAFD)_|LD_|MALLOC_|LANG|LC_|TZ$")


@functools.lru_cache(maxsize=None)
def hash_of(file, _size, _changed):
    return hashlib.sha256(pathlib.Path(file).read_bytes()).hexdigest()


def matching(pattern):
    """Those files that git tracks, or does not ignore, whose names from the root match; none for an empty
    pattern."""
    if not pattern:
        return []
    kept = subprocess.run(["git", "ls-files", "--cached", "--others", "--exclude-standard"], cwd=ROOT,
                          stdout=subprocess.PIPE, text=True, check=True).stdout.splitlines()
    return [name for name in kept if re.search(pattern, name) and (ROOT / name).exists()]


def files_below(paths):
    """All files at or below the paths, which are absolute or from the root."""
    for path in paths:
        found = ROOT / path
        if found.is_dir():
            yield from (file for file in found.rglob("*") if file.is_file() and "__pycache__" not in file.parts)
        else:
            yield found


def contents_of(paths):
    """Name and hash of each file."""
    for file in sorted(set(files_below(paths))):
        status = file.stat()
        yield str(file), hash_of(str(file), status.st_size, status.st_mtime_ns)


@functools.lru_cache(maxsize=None)
def machine():
    """Kernel, installed packages, what the board's packages are, and how tests are run."""
    packages = subprocess.run(
        ["dpkg-query", "-W", "-f", "${Package} ${Architecture} ${Version}\\n"],
        stdout=subprocess.PIPE, text=True, check=True).stdout
    how = (pathlib.Path(__file__).parent, ROOT / "tools" / "setup", ROOT / "tools" / "packages.sh")
    variables = sorted(item for item in os.environ.items() if VARIABLES.match(item[0]))
    return [os.uname().release, packages, list(contents_of(how)), variables]


def key_of(words, paths):
    """The key of a command with the files and folders that it reads."""
    return hashlib.sha256(json.dumps([words, list(contents_of(paths)), machine()]).encode()).hexdigest()


class Memory:
    """With `forgetful` nothing that passed earlier counts, but what passes now is remembered."""

    def __init__(self, file, forgetful=False):
        self.file = file
        self.passed = json.loads(file.read_text()) if file.exists() else {}
        self.forgetful = forgetful
        self.lock = threading.Lock()

    def cases(self, name, key):
        """How many cases passed with this key, or None if it has to run."""
        with self.lock:
            known, cases = self.passed.get(name, (None, None))
        return cases if key and key == known and not self.forgetful else None

    def note(self, name, key, cases):
        """Remembers the result of a run; `cases` is None when it failed."""
        with self.lock:
            self.passed.pop(name, None)
            if key and cases is not None:
                self.passed[name] = (key, cases)
            self.file.parent.mkdir(exist_ok=True)
            new = self.file.with_suffix(".new")
            new.write_text(json.dumps(self.passed, indent=1, sort_keys=True))
            new.replace(self.file)
