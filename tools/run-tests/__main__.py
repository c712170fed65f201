# SPDX-License-Identifier: Apache-2.0
"""run-tests [--all] PART [NAME]: what ./test does on a machine that is set up; see ./test --help."""

import os
import pathlib
import sys

import checks
import memory
from preset import Preset
from tally import Tally

UNIT = ("host", "host-asan", "host-tsan")
PARTS = {"all": (*UNIT, "board"), "checks": (), "unit": UNIT}


def main(arguments):
    os.chdir(memory.ROOT)
    everything = arguments[0] == "--all"
    part, *name = arguments[1 if everything else 0:]
    tally = Tally()
    passed = memory.Memory(pathlib.Path("build/passed.json"), forgetful=everything)
    if part in ("all", "checks"):
        checks.run(checks.OF_SOURCES, tally, passed)
    for preset in PARTS.get(part, (part,)):
        Preset(preset, tally, passed).run(*name)
    if part == "all":
        checks.run(checks.OF_BUILDS, tally, passed)
    return 0 if tally.close() else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
