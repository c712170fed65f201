# SPDX-License-Identifier: Apache-2.0
"""What ./test counts and prints."""

import subprocess
import sys
import threading

# Several threads print and count.
LOCK = threading.RLock()


def quietly(command, **options):
    """Returns whether a command succeeds; shows its output only when it fails."""
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, check=False, **options)
    if done.returncode:
        with LOCK:
            sys.stdout.buffer.write(done.stdout)
            sys.stdout.flush()
    return done.returncode == 0


def say(text):
    with LOCK:
        print(text, flush=True)


class Tally:
    def __init__(self):
        self.passed = self.failed = 0
        self.left_out = {}  # by kind: how many did not run, as they had passed before

    def count(self, what, passed, failed, seconds):
        with LOCK:
            self.passed += passed
            self.failed += failed
        say(f"{what}: {passed} passed, {failed} failed, {seconds:.0f} s")

    def leave_out(self, kind, number):
        with LOCK:
            self.left_out[kind] = self.left_out.get(kind, 0) + number

    def close(self):
        """Prints the closing lines; returns whether all is well."""
        left_out = ", ".join(f"{number} {kind}" for kind, number in self.left_out.items() if number)
        if left_out:
            say(f"unchanged since they passed, so not run: {left_out}")
        say(f"{self.passed} passed, {self.failed} failed")
        return (self.passed > 0 or bool(left_out)) and not self.failed
